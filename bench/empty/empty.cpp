// A DLL with nothing in it but the compiler's own start-up code.
extern "C" __declspec(dllexport) int VeloxBenchEmpty() { return 0; }
