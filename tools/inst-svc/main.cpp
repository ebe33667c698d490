// Stand-in for the helper service: started with the front end's and the installer engine's
// process ids, it stays alive while both live.
#include "os/os.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

bool parsePid(const char *text, os::ProcessId &pid)
{
    char *end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (end == text || *end != '\0' || text[0] == '-' || value == 0 || value > 0x7fffffffULL)
        return false;
    pid = static_cast<os::ProcessId>(value);
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    os::ProcessId frontEnd = 0;
    os::ProcessId installer = 0;
    if (argc != 3 || !parsePid(argv[1], frontEnd) || !parsePid(argv[2], installer)) {
        std::fprintf(stderr, "usage: TandemoInstSvc.exe <front end pid> <installer pid>\n");
        return 2;
    }
    while (os::isProcessAlive(frontEnd) && os::isProcessAlive(installer))
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    return 0;
}
