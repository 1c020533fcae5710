// mavscan - command-line scanner on libkormomav.
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
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
        MAV_INST inst = engine.acquire(&error);
        if (inst == nullptr) {
            std::fprintf(stderr, "mavscan: %s\n", error.c_str());
            return 2;
        }
        std::string text;
        engine.describe(inst, &text);
        std::fputs(text.c_str(), stdout);
        engine.release(inst);
        if (opt.paths.empty()) return 0;
    }

    bool progress = isatty(STDERR_FILENO) && !opt.quiet;
    Report report(opt.json, opt.quiet, progress);

    // Standard input is scanned first, on its own instance.
    std::vector<std::string> paths;
    for (const auto& p : opt.paths) {
        if (p != "-") {
            paths.push_back(p);
            continue;
        }
        std::vector<unsigned char> data;
        if (!readAll(stdin, &data)) {
            report.error("stdin", "cannot read standard input");
            continue;
        }
        MAV_INST inst = engine.acquire(&error);
        if (inst == nullptr) {
            std::fprintf(stderr, "mavscan: %s\n", error.c_str());
            return 2;
        }
        report.object("stdin", engine.scanBytes(inst, "stdin", data, 0));
        engine.release(inst);
    }

    // Instances are taken here, one per worker, before any worker starts:
    // building profile instances is not meant to run on several threads.
    std::vector<MAV_INST> instances;
    for (unsigned i = 0; i < opt.jobs; ++i) {
        MAV_INST inst = engine.acquire(&error);
        if (inst == nullptr) {
            if (instances.empty()) {
                std::fprintf(stderr, "mavscan: %s\n", error.c_str());
                return 2;
            }
            break;  // fewer workers than asked: go on with those we have
        }
        instances.push_back(inst);
    }

    Queue queue;
    std::atomic<uint32_t> jobId{1};
    std::vector<std::thread> workers;
    for (MAV_INST inst : instances) {
        workers.emplace_back([&, inst] {
            std::string p;
            while (queue.pop(&p)) report.object(p, engine.scanFile(inst, p, jobId++));
        });
    }
    std::atomic<bool> walking{true};
    std::thread ticker;
    if (progress) {
        ticker = std::thread([&] {
            while (walking) {
                report.progress();
                std::this_thread::sleep_for(std::chrono::milliseconds(250));
            }
        });
    }
    for (const auto& p : paths) {
        walk(p, opt.followLinks, [&](const std::string& f) { queue.push(f); },
             [&](const std::string& f, const std::string& m) { report.error(f, m); });
    }
    queue.close();
    for (auto& t : workers) t.join();
    walking = false;
    if (ticker.joinable()) ticker.join();
    for (MAV_INST inst : instances) engine.release(inst);
    if (!opt.quiet || opt.json) report.summary();
    engine.stop();
    return report.exitStatus();
}
