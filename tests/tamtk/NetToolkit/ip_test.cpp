#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

#include "AgentTestSupport.h"
#include "NetToolkit/IP.h"

using namespace Tamnet;
using AgentTest::messageOf;

namespace {

TEST(IPAddr, TextIsReadWrittenAndRefused) {
    EXPECT_EQ(IPv4Addr("255.255.255.255").str(), "255.255.255.255");
    EXPECT_EQ(IPv4Addr("1.2.3.4").value(), 0x01020304u) << "held in host order";
    for (const char* text : {"1.2.3", "1.2.3.256", "1.2.3.4 ", "a.b.c.d", "", "::1", "1.2.3.4.5"}) {
        EXPECT_FALSE(IPv4Addr::is_valid(text)) << text;
        EXPECT_EQ(messageOf<NetAddrInvalid>([&] { IPv4Addr{std::string(text)}; }),
                  std::string("Bad IPv4 address string [[ ") + text + " ]]");
    }
    IPv4Addr kept("1.1.1.1");
    EXPECT_THROW(kept.assign(std::string("x")), NetAddrInvalid);
    EXPECT_EQ(kept.str(), "1.1.1.1");

    const IPAddr v4("192.0.2.1"), v6("::1");
    EXPECT_TRUE(v4.is_ipv4() && !v4.is_ipv6() && v6.is_ipv6());
    EXPECT_EQ(v4.ipv4(), IPv4Addr("192.0.2.1"));
    EXPECT_THROW(v6.ipv4(), NetAddrInvalid);
    EXPECT_EQ(IPAddr(0xC0000201u), v4);
    EXPECT_EQ(IPAddr("2001:DB8::0:1").str(), "2001:db8::1") << "printed in canonical form";
    EXPECT_EQ(IPAddr().str(), "0:0");
    EXPECT_EQ(messageOf<NetAddrInvalid>([] { IPAddr("1.2.3"); }),
              "Bad IP address string [[ 1.2.3 ]]");

    // The native forms are in network order and convert back.
    const in_addr native = netaddr_traits<IPv4Addr>::addr_to_native(IPv4Addr("1.2.3.4"));
    char text[INET_ADDRSTRLEN];
    EXPECT_STREQ(inet_ntop(AF_INET, &native, text, sizeof text), "1.2.3.4");
    typedef netaddr_traits<IPAddr> ip;
    for (const char* t : {"1.2.3.4", "fe80::1", "0:0"}) {
        const IPAddr addr = ip::string_to_addr(t);
        EXPECT_TRUE(ip::equal(ip::native_to_addr(ip::addr_to_native(addr)), addr)) << t;
    }
}

TEST(IPv4Mask, NetworksAndTheirWrittenForms) {
    IPv4Mask net;
    net.set_netmask("10.0.0.0", "255.0.0.0");
    EXPECT_TRUE(net.contains(IPv4Addr("10.200.1.1")));
    EXPECT_FALSE(net.contains(IPv4Addr("11.0.0.1")));
    EXPECT_EQ(netaddr_traits<IPv4Mask>::string_to_addr(net.str()), net);
    EXPECT_TRUE(netaddr_traits<IPv4Mask>::string_to_addr("0/0").is_null());
    EXPECT_THROW(netaddr_traits<IPv4Mask>::string_to_addr("10.0.0.0"), NetAddrInvalid);

    const struct {
        const char* network;
        const char* mask;
        std::string message;
    } refused[] = {
        {"10.0.0.1", "255.0.0.0", "Bad IPv4 network, it has bits outside its mask"},
        {"10.0.0.0", "255.0.255.0", "Bad IPv4 netmask, its bits are not contiguous"},
        {"10.0.0", "255.0.0.0", "Bad IPv4 network string"},
    };
    for (const auto& r : refused) {
        EXPECT_EQ(messageOf<NetAddrInvalid>([&] { IPv4Mask().set_netmask(r.network, r.mask); }),
                  r.message + " [[ " + r.network + " (network) " + r.mask + " (mask) ]]");
    }
}

TEST(IPAddr, OrderIsEmptyThenIPv4ThenIPv6) {
    const IPAddr ordered[] = {IPAddr(),     IPAddr("9.9.9.9"), IPAddr("10.0.0.0"),
                              IPAddr("::"), IPAddr("::1"),     IPAddr("fe80::1")};
    const std::size_t n = sizeof ordered / sizeof ordered[0];
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t j = 0; j < n; ++j) {
            EXPECT_EQ(ordered[i] < ordered[j], i < j) << i << " " << j;
            EXPECT_EQ(ordered[i] == ordered[j], i == j) << i << " " << j;
        }
    }
}

}  // namespace
