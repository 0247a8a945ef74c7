/* A second library for the component loader tests. */
__attribute__((visibility("default"))) const char* greeting(void) { return "hello"; }
