// Stand-in for the application, "Tandemo.exe": what the installer ships and starts, what the
// front end finds running and closes. It only waits, for the seconds given (default an hour).
// With CORVALEN_TANDEMO_REPORT set, it first writes the folder it was started in there: the
// installer tier checks that the application always starts in its own folder.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#ifdef _WIN32
#include <direct.h>
#define getcwd _getcwd
#else
#include <unistd.h>
#endif

int main(int argc, char **argv)
{
    char folder[4096];
    if (const char *report = std::getenv("CORVALEN_TANDEMO_REPORT"))
        if (FILE *file = std::fopen(report, "w")) {
            std::fprintf(file, "%s\n", getcwd(folder, sizeof folder) ? folder : "");
            std::fclose(file);
        }
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 3600;
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    return 0;
}
