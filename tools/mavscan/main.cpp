// mavscan - command-line scanner on libkormomav.
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "engine.h"
#include "options.h"
#include "report.h"
#include "walk.h"

#ifndef KORMO_VERSION
#define KORMO_VERSION "unknown"
#endif

using namespace mavscan;

namespace {

// Paths handed from the walk to the workers.
class Queue {
  public:
    void push(std::string p) {
        std::unique_lock<std::mutex> lock(mu_);
        room_.wait(lock, [&] { return q_.size() < 4096; });
        q_.push_back(std::move(p));
        ready_.notify_one();
    }
    void close() {
        std::lock_guard<std::mutex> lock(mu_);
        closed_ = true;
        ready_.notify_all();
    }
    bool pop(std::string* p) {
        std::unique_lock<std::mutex> lock(mu_);
        ready_.wait(lock, [&] { return closed_ || !q_.empty(); });
        if (q_.empty()) return false;
        *p = std::move(q_.front());
        q_.pop_front();
        room_.notify_one();
        return true;
    }

  private:
    std::mutex mu_;
    std::condition_variable ready_, room_;
    std::deque<std::string> q_;
    bool closed_ = false;
};

bool readAll(FILE* f, std::vector<unsigned char>* data) {
    unsigned char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) data->insert(data->end(), buf, buf + n);
    return !std::ferror(f);
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    std::string error;
    if (!parseOptions(argc, argv, &opt, &error)) {
        std::fprintf(stderr, "mavscan: %s\n%s", error.c_str(), usageText());
        return 2;
    }
    if (opt.help) {
        std::fputs(usageText(), stdout);
        return 0;
    }
    if (opt.version) {
        std::printf("mavscan (libkormomav) %s\n", KORMO_VERSION);
        return 0;
    }

    Engine engine(opt);
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

    bool progress = isatty(STDERR_FILENO) && !opt.quiet;
    Report report(opt.json, opt.quiet, progress);
    std::atomic<uint32_t> jobId{1};

    // Standard input first, on the first scanner.
    std::vector<std::string> paths;
    bool stdinDone = false;
    for (const auto& p : opt.paths) {
        if (p != "-") {
            paths.push_back(p);
            continue;
        }
        if (stdinDone) continue;
        stdinDone = true;
        std::vector<unsigned char> data;
        if (!readAll(stdin, &data)) {
            report.error("stdin",
                         std::string("cannot read standard input: ") + std::strerror(errno));
            continue;
        }
        report.object("stdin", scanners[0]->scanBytes("stdin", data, jobId++));
    }

    Queue queue;
    std::vector<std::thread> workers;
    for (auto& s : scanners) {
        Scanner* sc = s.get();
        workers.emplace_back([&, sc] {
            std::string p;
            while (queue.pop(&p)) report.object(p, sc->scanFile(p, jobId++));
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
    for (const auto& p : paths) {
        walk(
            p, opt.followLinks, [&](const std::string& f) { queue.push(f); },
            [&](const std::string& f, const std::string& m) { report.error(f, m); });
    }
    queue.close();
    for (auto& t : workers) t.join();
    {
        std::lock_guard<std::mutex> lock(tickMu);
        running = false;
    }
    tickCv.notify_all();
    if (ticker.joinable()) ticker.join();
    scanners.clear();
    report.summary();
    engine.stop();
    return report.exitStatus();
}
