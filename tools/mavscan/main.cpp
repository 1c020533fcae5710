// mavscan - command-line scanner on libkormomav.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine.h"
#include "options.h"
#include "report.h"
#include "walk.h"

using namespace mavscan;

namespace {

// Files handed from the walk to the workers.
class Queue {
  public:
    void push(Target t) {
        std::unique_lock<std::mutex> lock(mu_);
        room_.wait(lock, [&] { return q_.size() < 4096; });
        q_.push_back(std::move(t));
        ready_.notify_one();
    }
    void close() {
        std::lock_guard<std::mutex> lock(mu_);
        closed_ = true;
        ready_.notify_all();
    }
    bool pop(Target* t) {
        std::unique_lock<std::mutex> lock(mu_);
        ready_.wait(lock, [&] { return closed_ || !q_.empty(); });
        if (q_.empty()) return false;
        *t = std::move(q_.front());
        q_.pop_front();
        room_.notify_one();
        return true;
    }

  private:
    std::mutex mu_;
    std::condition_variable ready_, room_;
    std::deque<Target> q_;
    bool closed_ = false;
};

// Set by SIGINT or SIGTERM: no new object is scanned, running scans are told
// to stop by their event handler, and the run ends with its summary. A second
// signal ends the process at once.
std::atomic<bool> stopRun{false};
std::atomic<int> stopSignal{0};

void onSignal(int sig) {
    if (stopRun.exchange(true)) {
        static const char kText[] = "mavscan: interrupted again, ending now\n";
        ssize_t ignored = write(STDERR_FILENO, kText, sizeof kText - 1);
        (void)ignored;
        _exit(2);
    }
    stopSignal = sig;
}

void catchSignals() {
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = onSignal;
    // Restarted: output written to a pipe must not be cut by the signal; the
    // loops that wait (standard input, the queue) look at the flag.
    sa.sa_flags = SA_RESTART;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

int usageError(const std::string& error) {
    std::fprintf(stderr, "mavscan: %s\nTry 'mavscan --help' for more information.\n",
                 error.c_str());
    return 2;
}

// -V: mavscan's and the library's versions, then each engine's and its
// signatures' (when one can be started).
int printVersion(Engine& engine) {
    std::fputs(versionText().c_str(), stdout);
    std::string error;
    std::unique_ptr<Scanner> s = engine.start(&error) ? engine.acquire(&error) : nullptr;
    if (!s) {
        std::printf("engine: not available (%s)\n", error.c_str());
        return 0;
    }
    for (const std::string& e : s->engines(true)) std::printf("engine %s\n", e.c_str());
    return 0;
}

// The paths to walk: the command line's, then those of the -f list.
template <typename Fn>
bool eachPath(const Options& opt, const std::vector<std::string>& given, Fn fn,
              std::string* error) {
    for (const auto& p : given) fn(p);
    if (opt.fileList.empty()) return true;
    std::ifstream list(opt.fileList);
    if (!list) {
        *error = std::string("cannot read the file list: ") + std::strerror(errno);
        return false;
    }
    std::string line;
    while (!stopRun.load() && std::getline(list, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) fn(line);
    }
    return true;
}

// Walks the paths and scans what the walk finds, one worker per scanner,
// until the walk ends or the run is stopped.
void scanAll(const Options& opt, const PathFilter& filter,
             std::vector<std::unique_ptr<Scanner>>& scanners, Report& report, bool progress) {
    std::atomic<uint32_t> jobId{1};

    // Standard input is scanned by a worker like a file, in its place on the
    // command line (once), so that the walk goes on while it is read.
    Queue queue;
    std::vector<std::thread> workers;
    for (auto& s : scanners) {
        Scanner* sc = s.get();
        workers.emplace_back([&, sc] {
            Target t;
            // After a stop the queue is emptied without scanning.
            while (queue.pop(&t)) {
                if (stopRun.load()) continue;
                if (t.standardInput) {
                    report.object(t.path, sc->scanStream(STDIN_FILENO, t.path, jobId++, stopRun));
                } else {
                    report.object(t.path, sc->scanFile(t, jobId++));
                }
            }
        });
    }
    // The progress line is redrawn four times a second until the scan ends.
    std::mutex tickMu;
    std::condition_variable tickCv;
    bool running = true;
    std::thread ticker;
    if (progress) {
        ticker = std::thread([&] {
            std::unique_lock<std::mutex> lock(tickMu);
            while (
                !tickCv.wait_for(lock, std::chrono::milliseconds(250), [&] { return !running; })) {
                report.progress();
            }
        });
    }
    WalkRules rules;
    rules.followLinks = opt.followLinks;
    rules.filter = &filter;
    rules.stop = &stopRun;
    bool stdinQueued = false;
    std::string error;
    bool listed = eachPath(
        opt, opt.paths,
        [&](const std::string& p) {
            if (stopRun.load()) return;
            if (p == "-") {
                Target t;
                t.path = "stdin";
                t.standardInput = true;
                if (!stdinQueued) queue.push(t);
                stdinQueued = true;
                return;
            }
            walk(
                p, rules, [&](const Target& t) { queue.push(t); },
                [&](const std::string& f, const std::string& m) { report.error(f, m); });
        },
        &error);
    if (!listed) report.error(opt.fileList, error);
    queue.close();
    for (auto& t : workers) t.join();
    {
        std::lock_guard<std::mutex> lock(tickMu);
        running = false;
    }
    tickCv.notify_all();
    if (ticker.joinable()) ticker.join();
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    std::string error;
    if (!parseOptions(argc, argv, &opt, &error)) return usageError(error);
    if (opt.help) {
        std::fputs(usageText(), stdout);
        return 0;
    }
    PathFilter filter;
    if (!filter.compile(opt.exclude, opt.excludeDir, opt.include, &error)) {
        return usageError(error);
    }
    catchSignals();
    Engine engine(opt, &stopRun);
    if (opt.version) return printVersion(engine);
    FILE* log = nullptr;
    if (!opt.logFile.empty() && (log = std::fopen(opt.logFile.c_str(), "ae")) == nullptr) {
        std::fprintf(stderr, "mavscan: cannot open the log %s: %s\n", opt.logFile.c_str(),
                     std::strerror(errno));
        return 2;
    }
    if (!engine.start(&error)) {
        std::fprintf(stderr, "mavscan: %s\n", error.c_str());
        return 2;
    }
    if (opt.info) {
        std::unique_ptr<Scanner> s = engine.acquire(&error);
        if (!s) {
            std::fprintf(stderr, "mavscan: %s\n", error.c_str());
            return 2;
        }
        std::fputs(s->describe().c_str(), stdout);
        return 0;
    }

    // Scanners are taken here, one per worker, before any worker starts:
    // building profile instances is not meant to run on several threads.
    std::vector<std::unique_ptr<Scanner>> scanners;
    for (unsigned i = 0; i < opt.jobs; ++i) {
        std::unique_ptr<Scanner> s = engine.acquire(&error);
        if (!s) {
            if (scanners.empty()) {
                std::fprintf(stderr, "mavscan: %s\n", error.c_str());
                return 2;
            }
            break;  // fewer workers than asked: go on with those we have
        }
        scanners.push_back(std::move(s));
    }
    std::vector<std::string> engines = scanners[0]->engines(false);

    ReportOptions ro;
    ro.json = opt.json;
    ro.infectedOnly = opt.infectedOnly;
    ro.noSummary = opt.noSummary;
    ro.progress = isatty(STDERR_FILENO) && !opt.quiet;
    ro.log = log;
    Report report(ro);
    scanAll(opt, filter, scanners, report, ro.progress);
    scanners.clear();
    engine.stop();  // engines remove their temporary files
    bool interrupted = stopRun.load();
    if (interrupted) {
        std::fprintf(stderr, "mavscan: %s: the scan was interrupted\n",
                     stopSignal == SIGINT ? "SIGINT" : "SIGTERM");
    }
    report.summary(engines, interrupted);
    if (log != nullptr) std::fclose(log);
    return interrupted ? 2 : report.exitStatus();
}
