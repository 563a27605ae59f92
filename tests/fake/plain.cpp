// A shared library that is no PKCS#11 module.
extern "C" int notAModule() { return 1; }
