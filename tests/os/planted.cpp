// A library planted beside the os tests' program (tests/os/CMakeLists.txt).
extern "C" __declspec(dllexport) int corvalenPlanted()
{
    return 1;
}
