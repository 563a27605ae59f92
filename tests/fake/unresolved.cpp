// A shared library that lacks a function: it cannot be loaded by those who bind at once.
extern "C" int nowhereToBeFound();
extern "C" int C_GetFunctionList(void*) { return nowhereToBeFound(); }
