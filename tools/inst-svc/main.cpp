// Linux stand-in for the helper service: started with the front end's and the installer
// engine's process ids, it stays alive while both live.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <signal.h>
#include <unistd.h>

namespace {

bool parsePid(const char *text, pid_t &pid)
{
    char *end = nullptr;
    errno = 0;
    const long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value <= 0 || value > 0x7fffffffL)
        return false;
    pid = static_cast<pid_t>(value);
    return true;
}

bool alive(pid_t pid)
{
    return kill(pid, 0) == 0 || errno == EPERM;
}

} // namespace

int main(int argc, char **argv)
{
    pid_t frontEnd = 0;
    pid_t installer = 0;
    if (argc != 3 || !parsePid(argv[1], frontEnd) || !parsePid(argv[2], installer)) {
        std::fprintf(stderr, "usage: TandemoInstSvc.exe <front end pid> <installer pid>\n");
        return 2;
    }
    while (alive(frontEnd) && alive(installer))
        usleep(200 * 1000);
    return 0;
}
