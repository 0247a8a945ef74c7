#!/usr/bin/python3
"""A private Postfix relay that takes XOAUTH2 and OAUTHBEARER sign-ins and
has Dovecot's auth service check the bearer JWT (RS256, against the public
key of the token endpoint) locally. Everything lives below --dir; the
system's Postfix and Dovecot are never configured or started.

Prints "READY <port> <port offering only XOAUTH2>", or "UNAVAILABLE <why>"
where it cannot run (not root, a package missing). Mail to bob@example.com
lands in <dir>/mail/bob/. Stops both when its standard input closes.
"""

import argparse
import os
import pwd
import shutil
import signal
import socket
import subprocess
import sys
import time

_DOVECOT = """base_dir = {d}/dovecot-run
state_dir = {d}/dovecot-state
log_path = {d}/dovecot.log
protocols = none
ssl = no
disable_plaintext_auth = no
auth_mechanisms = xoauth2 oauthbearer
auth_verbose = yes
auth_failure_delay = 0
passdb {{
  driver = oauth2
  mechanisms = xoauth2 oauthbearer
  args = {d}/dovecot-oauth2.conf.ext
}}
userdb {{
  driver = static
  args = uid=nobody gid=nogroup home=/nonexistent allow_all_users=yes
}}
service auth {{
  unix_listener auth-postfix {{
    mode = 0666
  }}
}}
service anvil {{
  unix_listener anvil-auth-penalty {{
    mode = 0
  }}
}}
"""
# No per-address penalty after failures: it would slow later valid sign-ins.

_MAIN_CF = """compatibility_level = 3.6
queue_directory = {d}/pf-spool
data_directory = {d}/pf-data
maillog_file_prefixes = {d}/
maillog_file = {d}/postfix.log
myhostname = relay.test
mydestination =
alias_maps =
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
smtpd_sasl_auth_enable = yes
smtpd_sasl_type = dovecot
smtpd_sasl_path = {d}/dovecot-run/auth-postfix
smtpd_relay_restrictions = permit_sasl_authenticated, reject
virtual_mailbox_domains = example.com
virtual_mailbox_base = {d}/mail
virtual_mailbox_maps = inline:{{ {{bob@example.com=bob/}} }}
virtual_uid_maps = static:65534
virtual_gid_maps = static:65534
"""

# The second listener offers XOAUTH2 alone: the curl program (7.88) sends
# OAUTHBEARER whenever the server offers it.
_MASTER_CF = """127.0.0.1:{port} inet n - n - - smtpd
127.0.0.1:{port_x} inet n - n - - smtpd
  -o smtpd_sasl_mechanism_filter=xoauth2
""" + "".join("%s unix %s\n" % s for s in [
    ("pickup", "n - n 60 1 pickup"), ("cleanup", "n - n - 0 cleanup"),
    ("qmgr", "n - n 300 1 qmgr"), ("rewrite", "- - n - - trivial-rewrite"),
    ("bounce", "- - n - 0 bounce"), ("defer", "- - n - 0 bounce"),
    ("trace", "- - n - 0 bounce"), ("verify", "- - n - 1 verify"),
    ("flush", "n - n 1000? 0 flush"), ("proxymap", "- - n - - proxymap"),
    ("smtp", "- - n - - smtp"), ("relay", "- - n - - smtp"), ("showq", "n - n - - showq"),
    ("error", "- - n - - error"), ("retry", "- - n - - error"),
    ("discard", "- - n - - discard"), ("virtual", "- n n - - virtual"),
    ("anvil", "- - n - 1 anvil"), ("scache", "- - n - 1 scache")]) + \
    "postlog unix-dgram n - n - 1 postlogd\n"


def unavailable():
    for program in ("/usr/sbin/postfix", "/usr/sbin/dovecot"):
        if not os.access(program, os.X_OK):
            return program + " is not installed (Debian packages postfix, dovecot-core)"
    if os.geteuid() != 0:
        return "Postfix and Dovecot need root to start"
    for user in ("postfix", "nobody", "dovecot", "dovenull"):
        try:
            pwd.getpwnam(user)
        except KeyError:
            return "the user %s is missing" % user
    return ""


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def write(path, text):
    with open(path, "w") as f:
        f.write(text)


def start(d, public_key):
    for sub in ("keys/default/RS256", "dovecot-run", "dovecot-state", "pf-conf", "pf-spool",
                "pf-data", "mail"):
        os.makedirs(os.path.join(d, sub), exist_ok=True)
    shutil.copy(public_key, os.path.join(d, "keys/default/RS256/default"))
    shutil.chown(os.path.join(d, "pf-data"), "postfix")
    os.chown(os.path.join(d, "mail"), 65534, 65534)
    write(os.path.join(d, "dovecot-oauth2.conf.ext"),
          "introspection_mode = local\nlocal_validation_key_dict = fs:posix:prefix=%s/keys/\n"
          "username_attribute = sub\n" % d)
    write(os.path.join(d, "dovecot.conf"), _DOVECOT.format(d=d))
    ports = free_port(), free_port()
    write(os.path.join(d, "pf-conf/main.cf"), _MAIN_CF.format(d=d))
    write(os.path.join(d, "pf-conf/master.cf"), _MASTER_CF.format(port=ports[0], port_x=ports[1]))
    # Postfix waits for a configuration file that changed in the last second.
    past = time.time() - 60
    for name in ("main.cf", "master.cf"):
        os.utime(os.path.join(d, "pf-conf", name), (past, past))
    with open(os.path.join(d, "dovecot-stderr.log"), "a") as log:
        # Dovecot's master keeps its standard error open: never a pipe.
        subprocess.run(["/usr/sbin/dovecot", "-c", os.path.join(d, "dovecot.conf")],
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=log, check=True)
    socket_path = os.path.join(d, "dovecot-run/auth-postfix")
    wait_for(lambda: os.path.exists(socket_path), "Dovecot's auth socket")
    subprocess.run(["/usr/sbin/postfix", "-c", os.path.join(d, "pf-conf"), "start"],
                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, check=True)
    for port in ports:
        wait_for(lambda: listening(port), "Postfix on port %d" % port)
    return ports


def listening(port):
    with socket.socket() as s:
        return s.connect_ex(("127.0.0.1", port)) == 0


def wait_for(condition, what, seconds=20):
    end = time.time() + seconds
    while not condition():
        if time.time() > end:
            raise RuntimeError(what + " did not come up")
        time.sleep(0.02)


def stop(d):
    # Postfix first: Dovecot's auth process lingers while smtpd holds on to it.
    for pid_file in ("pf-spool/pid/master.pid", "dovecot-run/master.pid"):
        try:
            with open(os.path.join(d, pid_file)) as f:
                os.killpg(int(f.read().strip()), signal.SIGKILL)
        except (OSError, ValueError):
            pass


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--dir", required=True, help="a fresh folder for everything")
    parser.add_argument("--public-key", required=True, help="the token endpoint's key (PEM)")
    args = parser.parse_args()
    why = unavailable()
    if why:
        print("UNAVAILABLE " + why, flush=True)
        return
    d = os.path.abspath(args.dir)
    try:
        ports = start(d, args.public_key)
        print("READY %d %d" % ports, flush=True)
        sys.stdin.read()
    finally:
        stop(d)


if __name__ == "__main__":
    main()
