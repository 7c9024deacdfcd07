// A stand-in tool for the runner tests. The first argument picks what it does:
//   print-raw TEXT     writes TEXT with \r, \n, \b and \\ escapes decoded, exits 0
//   exit N             prints "bye" and exits with status N
//   hang PIDFILE       writes its pid, starts a grandchild that writes its pid to
//                      PIDFILE.child, then prints "ready" and sleeps forever
//   stubborn PIDFILE   like hang, but ignores SIGTERM
//   crash              prints "about to crash" and aborts
//   stream N           prints "line i" N times, 1 ms apart
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

std::string decode(const char* text)
{
    std::string out;
    for (const char* p = text; *p; ++p) {
        if (*p != '\\' || p[1] == '\0') {
            out += *p;
            continue;
        }
        ++p;
        switch (*p) {
        case 'r':
            out += '\r';
            break;
        case 'n':
            out += '\n';
            break;
        case 'b':
            out += '\b';
            break;
        default:
            out += *p;
            break;
        }
    }
    return out;
}

void writePid(const std::string& path, pid_t pid)
{
    if (FILE* f = std::fopen(path.c_str(), "w")) {
        std::fprintf(f, "%d\n", static_cast<int>(pid));
        std::fclose(f);
    }
}

[[noreturn]] void hang(const std::string& pidFile, bool ignoreTerm)
{
    if (ignoreTerm)
        std::signal(SIGTERM, SIG_IGN);
    writePid(pidFile, getpid());
    const pid_t child = fork();
    if (child == 0) {
        if (ignoreTerm)
            std::signal(SIGTERM, SIG_IGN);
        writePid(pidFile + ".child", getpid());
        for (;;)
            pause();
    }
    std::printf("ready\n");
    std::fflush(stdout);
    for (;;)
        pause();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return 64;
    const std::string mode = argv[1];
    if (mode == "print-raw" && argc >= 3) {
        const std::string text = decode(argv[2]);
        std::fwrite(text.data(), 1, text.size(), stdout);
        return 0;
    }
    if (mode == "exit" && argc >= 3) {
        std::printf("bye\n");
        return std::atoi(argv[2]);
    }
    if ((mode == "hang" || mode == "stubborn") && argc >= 3)
        hang(argv[2], mode == "stubborn");
    if (mode == "crash") {
        std::printf("about to crash\n");
        std::fflush(stdout);
        std::abort();
    }
    if (mode == "stderr") {
        std::fprintf(stdout, "to stdout\n");
        std::fflush(stdout);
        std::fprintf(stderr, "to stderr\n");
        return 0;
    }
    if (mode == "stream" && argc >= 3) {
        const int count = std::atoi(argv[2]);
        for (int i = 0; i < count; ++i) {
            std::printf("line %d\n", i);
            std::fflush(stdout);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return 0;
    }
    return 64;
}
