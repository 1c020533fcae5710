// The clamd adapter over a farm of servers: spreading, fail-over, mid-run
// failure, descriptor passing and size limits, driven by a fake clamd.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "engines_env.h"

namespace {

using namespace engines;

// One client connection; every read is a recvmsg so passed descriptors are kept.
struct Peer {
    int fd;
    std::string buf;
    std::vector<int> fds;
    ~Peer() {
        for (int f : fds) close(f);
    }
    // The next n bytes, or (n 0) the next command up to its NUL, left out.
    bool Take(size_t n, std::string* out) {
        while (n == 0 ? buf.find('\0') == std::string::npos : buf.size() < n) {
            char data[65536];
            alignas(cmsghdr) char ctl[CMSG_SPACE(sizeof(int))];
            iovec iov{data, sizeof data};
            msghdr m{nullptr, 0, &iov, 1, ctl, sizeof ctl, 0};
            ssize_t got = recvmsg(fd, &m, MSG_CMSG_CLOEXEC);
            if (got <= 0) return false;
            cmsghdr* c = CMSG_FIRSTHDR(&m);  // the adapter passes one descriptor at a time
            if (c != nullptr && c->cmsg_type == SCM_RIGHTS)
                fds.push_back(*reinterpret_cast<int*>(CMSG_DATA(c)));
            buf.append(data, static_cast<size_t>(got));
        }
        const size_t cut = n == 0 ? buf.find('\0') : n;
        *out = buf.substr(0, cut);
        buf.erase(0, n == 0 ? cut + 1 : n);
        return true;
    }
    void Reply(const std::string& s) { (void)!send(fd, s.c_str(), s.size() + 1, MSG_NOSIGNAL); }
};

// A fake clamd speaking its session protocol (IDSESSION, VERSION, INSTREAM,
// FILDES, END) on a Unix socket or 127.0.0.1, with settable delay, failure and
// reply modes. An object is "found" when it holds the needle.
class FakeClamd : public FakeServer {
  public:
    enum Mode { kAnswer, kRefuseFd, kDrop, kMalformed, kError };
    // unixPath empty: TCP on a free loopback port (kept over a restart).
    explicit FakeClamd(const std::string& unixPath = "")
        : FakeServer([this](int fd) { Serve(fd); }, unixPath) {}
    ~FakeClamd() { Stop(); }  // before the members its connections use go

    std::atomic<int> mode{kAnswer}, delayMs{0}, scans{0}, byFd{0};
    std::string needle = "INFECTED";    // set before Start
    std::function<void()> beforeReply;  // runs before each scan's reply

  private:
    void Serve(int fd) {
        Peer p{fd, {}, {}};
        std::string cmd, data, head;
        for (int id = 1; p.Take(0, &cmd); ++id) {
            std::string n = std::to_string(id) + ": ", prefix = "stream: ";
            if (cmd == "zEND") return;
            if (cmd == "zIDSESSION") id = 0;
            if (cmd == "zVERSION") p.Reply(n + "ClamAV 1.4.9/27000/Thu Nov 20 08:37:01 2025");
            if (cmd == "zIDSESSION" || cmd == "zVERSION") continue;
            data.clear();
            if (cmd == "zINSTREAM") {
                for (uint32_t len; p.Take(4, &head) &&
                                   (std::memcpy(&len, head.data(), 4), len = ntohl(len)) != 0;) {
                    std::string chunk;
                    if (!p.Take(len, &chunk)) return;
                    data += chunk;
                }
            } else if (cmd == "zFILDES" && mode != kRefuseFd) {
                if (!p.Take(1, &head) || p.fds.empty()) return;
                int f = p.fds.front();
                p.fds.erase(p.fds.begin());
                char b[65536];
                for (ssize_t got;
                     (got = pread(f, b, sizeof b, static_cast<off_t>(data.size()))) > 0;)
                    data.append(b, static_cast<size_t>(got));
                prefix = "fd[" + std::to_string(f) + "]: ";
                close(f);
                ++byFd;
            } else {
                // A refused FILDES is answered once its descriptor is in: the
                // adapter reads a refusal that comes before it has sent one as a
                // failed server (a race of its own, not what this fake checks).
                if (cmd == "zFILDES") p.Take(1, &head);
                p.Reply(n + "UNKNOWN COMMAND");
                return;
            }
            ++scans;
            if (beforeReply) beforeReply();
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs.load()));
            if (mode == kDrop) return;
            const bool found = data.find(needle) != std::string::npos;
            p.Reply(n + (mode == kMalformed ? "what?"
                         : mode == kError   ? "Can't allocate memory ERROR"
                                            : prefix + (found ? "Fake.Needle FOUND" : "OK")));
        }
    }
};

class ClamdFarm : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(a_.Loaded()) << a_.Error(); }
    PEL_INIT* Open(const std::string& servers, const char* mode = "spread",
                   uint32_t reconnect = 10) {
        PEL_INIT* in = nullptr;
        // clang-format off
        const std::vector<Set> values = {{VS_P_INITSERVERS, servers}, {VS_P_INITENGINES, mode},
            {VS_P_INITTIMEOUT, 5}, {VS_P_INITRECONNECTTIME, reconnect}};
        // clang-format on
        EXPECT_EQ(0, a_.Init(values, &in)) << (in ? in->pszErrorText : "");
        return in;
    }
    std::string Sock(const std::string& name) { return dir_.File(name + ".sock"); }
    TempDir dir_;
    Adapter a_{KORMO_CLAMD_ADAPTER};
};

TEST_F(ClamdFarm, SpreadsInstancesOverServersOrKeepsTheOrder) {
    FakeClamd a(Sock("a")), b;
    ASSERT_TRUE(a.Start() && b.Start());
    for (const char* mode : {"spread", "ordered"}) {
        a.scans = b.scans = 0;
        for (int i = 0; i < 4; ++i) {
            PEL_INIT* in = Open(a.Address() + ", " + b.Address(), mode);
            Scanner s(a_, in);
            for (int k = 0; k < 10; ++k) ASSERT_EQ(0, s.Bytes(ToBytes("fine"), "o"));
            // The engine info lists each server with its state and version.
            ASSERT_EQ(2, in->usDrivers);
            EXPECT_NE(nullptr, strstr(in->pDriver[1].pszName, "up, ClamAV 1.4.9"));
        }
        const bool spread = mode[0] == 's';
        EXPECT_EQ(spread ? 20 : 40, a.scans) << mode;
        EXPECT_EQ(spread ? 20 : 0, b.scans) << mode;
    }
}

// A server killed while four instances scan: the other takes every object,
// none is lost or misjudged. With both down a scan is an error, never clean,
// and a server back is used again after a short back-off, long before
// INITRECONNECTTIME (60 s).
TEST_F(ClamdFarm, ServerKilledMidRunLosesNoObjectAndNoneIsCleanByMistake) {
    FakeClamd a(Sock("a")), b;
    a.delayMs = b.delayMs = 2;
    ASSERT_TRUE(a.Start() && b.Start());
    const int kThreads = 4, kObjects = 60;
    std::atomic<int> failed{0};  // an error or a wrong verdict
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, in = Open(a.Address() + "," + b.Address(), "spread", 60)] {
            Scanner s(a_, in);
            for (int k = 0; k < kObjects; ++k) {
                int rc = s.Bytes(ToBytes(k % 2 ? "fine" : "xINFECTEDx"), "o");
                if (rc != (k % 2 ? 0 : -2)) ++failed;
            }
        });
    }
    while (a.scans + b.scans < kThreads * kObjects / 3)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    a.Stop();
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(0, failed);
    Scanner s(a_, Open(a.Address() + "," + b.Address(), "spread", 60));
    b.Stop();
    EXPECT_EQ(13, s.Bytes(ToBytes("fine"), "o"));
    ASSERT_TRUE(a.Start());
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(-2, s.Bytes(ToBytes("INFECTED"), "o"));
}

TEST_F(ClamdFarm, FailingRepliesGoToAnotherServerOrEndAsErrorsWithTheirText) {
    const std::pair<FakeClamd::Mode, const char*> cases[] = {
        {FakeClamd::kDrop, "connection closed"},
        {FakeClamd::kMalformed, "malformed reply"},
        {FakeClamd::kError, "Can't allocate memory ERROR"}};
    for (const auto& [mode, text] : cases) {
        FakeClamd bad(Sock("bad" + std::to_string(mode))), lone, good;
        bad.mode = lone.mode = mode;
        ASSERT_TRUE(bad.Start() && lone.Start() && good.Start());
        Scanner pair(a_, Open(bad.Address() + "," + good.Address(), "ordered"));
        EXPECT_EQ(-2, pair.Bytes(ToBytes("INFECTED"), "o")) << text;
        EXPECT_EQ(1, good.scans);
        Scanner alone(a_, Open(lone.Address()));
        EXPECT_EQ(13, alone.Bytes(ToBytes("fine"), "o")) << text;
        EXPECT_TRUE(alone.ScanErrorHas(text)) << text;
    }
}

// Local servers get descriptors, others (and one that refuses them) streams;
// a size is read, not believed (/proc/self/status holds the needle, its size
// reads 0), and nothing over SCANLIMIT reaches a server.
TEST_F(ClamdFarm, LocalServersGetDescriptorsOthersStreamsAndSCANLIMITHolds) {
    FakeClamd local(Sock("l")), refusing(Sock("r")), tcp;
    refusing.mode = FakeClamd::kRefuseFd;
    const std::string file = dir_.File("obj.bin"), needle = "Name:", object = "..Name:.....";
    std::ofstream(file) << object;
    const std::vector<Set> eight = {{VS_P_SCANLIMIT, 8}};
    for (FakeClamd* f : {&local, &refusing, &tcp}) {
        f->needle = needle;
        ASSERT_TRUE(f->Start());
        Scanner s(a_, Open(f->Address()));
        EXPECT_EQ(-2, s.Bytes(ToBytes(object), "o")) << f->Address();
        EXPECT_EQ(-2, s.File(file)) << f->Address();
        EXPECT_EQ(0, s.Bytes(Bytes(), "empty"));
        EXPECT_EQ(f == &local ? 2 : 0, f->byFd) << f->Address();
        EXPECT_EQ(-2, s.File("/proc/self/status")) << f->Address();
        const int before = f->scans;
        for (const std::string& big : {std::string(), file, std::string("/proc/self/status")}) {
            EXPECT_EQ(14, big.empty() ? s.Bytes(ToBytes(object), "o", eight) : s.File(big, eight));
            EXPECT_TRUE(s.ScanErrorHas("SCANLIMIT")) << big;
        }
        EXPECT_EQ(before, f->scans);  // nothing too large was answered
    }
    // A file that grows while the server reads it is not scanned.
    std::ofstream(file) << "fine";
    local.beforeReply = [&] { std::ofstream(file, std::ios::app) << "more"; };
    Scanner s(a_, Open(local.Address()));
    EXPECT_EQ(14, s.File(file));
    EXPECT_TRUE(s.ScanErrorHas("changed"));
}

}  // namespace
