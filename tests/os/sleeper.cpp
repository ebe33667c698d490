// A process to look for and kill: sleeps for the number of seconds given (default 30).
#include <chrono>
#include <cstdlib>
#include <thread>

int main(int argc, char **argv)
{
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 30;
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    return 0;
}
