// A shared library with an undefined symbol: it cannot be loaded with RTLD_NOW.
extern "C" int nowhereToBeFound();
extern "C" int C_GetFunctionList(void*) { return nowhereToBeFound(); }
