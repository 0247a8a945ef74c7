/* A library for the component loader tests: one exported C function. */
__attribute__((visibility("default"))) int answer(void) { return 42; }
