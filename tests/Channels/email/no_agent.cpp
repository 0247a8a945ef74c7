// A library that is not an email agent: it lacks sendEmail.
extern "C" __attribute__((visibility("default"))) int notAnAgent() {
    return 1;
}
