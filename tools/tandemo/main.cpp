// Stand-in for the application, "Tandemo.exe": what the installer ships and starts, what the
// front end finds running and closes. It only waits, for the seconds given (default an hour).
#include <chrono>
#include <cstdlib>
#include <thread>

int main(int argc, char **argv)
{
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 3600;
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    return 0;
}
