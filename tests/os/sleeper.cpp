// A process to look for and kill: sleeps for the number of seconds given (default 30).
#include <cstdlib>
#include <unistd.h>

int main(int argc, char **argv)
{
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 30;
    sleep(static_cast<unsigned>(seconds));
    return 0;
}
