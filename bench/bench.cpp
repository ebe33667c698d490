// corvalen-bench: measurements that need X and exact clocks.
//   startup PROGRAM [ARGS...]   spawn -> first window mapped, in ms (the program is killed)
//   conversation FRONTEND N M S plays the engine: N posts one at a time, each timed until the
//                               front end logs its receive line; S seconds of idle CPU on the
//                               choice page; then, in a second run that installs at once,
//                               a flood of M posts: lines counted, RSS after.
#include "os/os.h"

#include <xcb/xcb.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

pid_t spawn(const std::vector<std::string> &args, int *stderrPipe = nullptr)
{
    std::vector<char *> argv;
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    int fds[2] = {-1, -1};
    if (stderrPipe) {
        if (pipe(fds) != 0)
            return -1;
        posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
    } else {
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    }
    pid_t pid = -1;
    posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (stderrPipe) {
        close(fds[1]);
        *stderrPipe = fds[0];
    }
    return pid;
}

long statusKB(pid_t pid, const char *key)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(key, 0) == 0)
            return std::atol(line.c_str() + std::strlen(key));
    return -1;
}

double cpuSeconds(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto close = stat.rfind(')');
    std::vector<std::string> fields;
    std::string f;
    for (std::size_t i = close + 2; i < stat.size(); ++i) {
        if (stat[i] == ' ') {
            fields.push_back(f);
            f.clear();
        } else {
            f += stat[i];
        }
    }
    // utime and stime are fields 14 and 15 of the whole line: 11 and 12 after ") S ".
    return (std::atof(fields.at(11).c_str()) + std::atof(fields.at(12).c_str())) /
           static_cast<double>(sysconf(_SC_CLK_TCK));
}

int startup(int argc, char **argv)
{
    xcb_connection_t *c = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(c))
        return 2;
    xcb_screen_t *screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
    const uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_change_window_attributes(c, screen->root, XCB_CW_EVENT_MASK, &mask);
    xcb_flush(c);
    std::vector<std::string> args(argv, argv + argc);
    const auto t0 = Clock::now();
    const pid_t pid = spawn(args);
    double ms = -1;
    pollfd pfd{xcb_get_file_descriptor(c), POLLIN, 0};
    while (ms < 0 && msSince(t0) < 20000) {
        poll(&pfd, 1, 50);
        while (xcb_generic_event_t *e = xcb_poll_for_event(c)) {
            if ((e->response_type & 0x7f) == XCB_MAP_NOTIFY && ms < 0)
                ms = msSince(t0);
            std::free(e);
        }
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    xcb_disconnect(c);
    std::printf("%.2f\n", ms);
    return ms < 0 ? 1 : 0;
}

// The engine's side, reduced to what the measurements need.
class Engine
{
public:
    Engine()
    {
        c = xcb_connect(nullptr, nullptr);
        xcb_screen_t *screen = xcb_setup_roots_iterator(xcb_get_setup(c)).data;
        window = xcb_generate_id(c);
        xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, 10, 10, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, 0, nullptr);
        auto *reply = xcb_intern_atom_reply(
            c, xcb_intern_atom(c, 0, 24, "_CORVALEN_POSTED_MESSAGE"), nullptr);
        atom = reply->atom;
        std::free(reply);
        xcb_flush(c);
    }
    ~Engine() { xcb_disconnect(c); }

    // Starts the front end and waits for its message window.
    bool start(const std::string &frontEnd, bool withoutAgreement)
    {
        pid = spawn({frontEnd, std::to_string(window), "0", withoutAgreement ? "1" : "0", "3.0.0.5",
                     "0.0.0.0", std::to_string(getpid()), "", "0"},
                    &err);
        const auto t0 = Clock::now();
        pollfd pfd{xcb_get_file_descriptor(c), POLLIN, 0};
        while (!frontWindow && msSince(t0) < 20000) {
            poll(&pfd, 1, 50);
            drainLog();
            while (xcb_generic_event_t *e = xcb_poll_for_event(c)) {
                const auto m = os::decodeClientMessage(e, 32, atom);
                if (m && m->message == 1224)
                    frontWindow = m->wParam;
                std::free(e);
            }
        }
        return frontWindow != 0;
    }

    // Reads what the front end logged so far; counts receive lines of progress messages.
    void drainLog(int timeoutMs = 0)
    {
        pollfd pfd{err, POLLIN, 0};
        char buffer[65536];
        while (poll(&pfd, 1, timeoutMs) > 0) {
            const ssize_t n = read(err, buffer, sizeof(buffer));
            if (n <= 0)
                break;
            pending.append(buffer, static_cast<std::size_t>(n));
            std::size_t nl;
            while ((nl = pending.find('\n')) != std::string::npos) {
                const std::string line = pending.substr(0, nl);
                pending.erase(0, nl + 1);
                if (line.find("msg=WM_MYPROGRESS, wp=") != std::string::npos) {
                    ++progressLines;
                    lastProgressLine = line;
                }
            }
            timeoutMs = 0;
        }
    }

    void post(std::uint32_t msg, std::uint64_t wp)
    {
        os::realPlatform().postMessage(frontWindow, msg, wp, 0);
    }

    void stop()
    {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        close(err);
    }

    xcb_connection_t *c;
    xcb_window_t window;
    std::uint32_t atom;
    pid_t pid = -1;
    int err = -1;
    os::WindowHandle frontWindow = 0;
    std::string pending;
    long progressLines = 0;
    std::string lastProgressLine;
};

int conversation(const std::string &frontEnd, int posts, int flood, int idleSeconds)
{
    Engine a;
    if (!a.start(frontEnd, false))
        return 2;
    usleep(1500 * 1000); // past the loading animation: the choice page is up
    a.drainLog(200);
    std::vector<double> latency;
    for (int i = 0; i < posts; ++i) {
        const long before = a.progressLines;
        const auto t0 = Clock::now();
        a.post(1124, 1000000 + i);
        while (a.progressLines == before && msSince(t0) < 5000)
            a.drainLog(5);
        latency.push_back(msSince(t0));
    }
    std::sort(latency.begin(), latency.end());
    const double cpu0 = cpuSeconds(a.pid);
    sleep(static_cast<unsigned>(idleSeconds));
    const double idle = (cpuSeconds(a.pid) - cpu0) / idleSeconds * 100.0;
    a.stop();

    Engine b;
    if (!b.start(frontEnd, true))
        return 2;
    usleep(1500 * 1000); // installing now
    b.drainLog(200);
    const long before = b.progressLines;
    for (int i = 0; i < flood; ++i) {
        b.post(1124, static_cast<std::uint64_t>(i % 100));
        if (i % 1000 == 0)
            b.drainLog(0);
    }
    b.post(1124, 100);
    const auto t0 = Clock::now();
    while (b.progressLines - before < flood + 1 && msSince(t0) < 60000)
        b.drainLog(50);
    const long received = b.progressLines - before;
    usleep(300 * 1000);
    const long rss = statusKB(b.pid, "VmRSS:");
    b.stop();

    std::printf("latency_median_ms %.3f\nlatency_p99_ms %.3f\nidle_cpu_percent %.3f\n"
                "flood_posted %d\nflood_received %ld\nflood_rss_kb %ld\n",
                latency[latency.size() / 2], latency[latency.size() * 99 / 100], idle, flood + 1,
                received, rss);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc >= 3 && std::strcmp(argv[1], "startup") == 0)
        return startup(argc - 2, argv + 2);
    if (argc == 6 && std::strcmp(argv[1], "conversation") == 0)
        return conversation(argv[2], std::atoi(argv[3]), std::atoi(argv[4]), std::atoi(argv[5]));
    std::fprintf(stderr, "usage: corvalen-bench startup PROGRAM [ARGS...] | conversation "
                         "FRONTEND POSTS FLOOD IDLE_SECONDS\n");
    return 2;
}
