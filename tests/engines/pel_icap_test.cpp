// The ICAP adapter through its entry points: reply cases from a fake ICAP
// server, the start-up self-test, and a real c-icap (virus_scan in front of a
// clamd) behind a dead first server.
#include <gtest/gtest.h>

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <thread>

#include "engines_env.h"

using namespace engines;

namespace {

// A fake ICAP server on a loopback port: one request per connection, OPTIONS
// answered with RESPMOD and no preview, every RESPMOD with reply after delayMs.
struct FakeIcap {
    std::mutex lock;
    std::string reply, last;  // last: the last RESPMOD request
    int delayMs = 0;
    FakeServer server{[this](int c) { Serve(c); }};  // stopped before the fields go

    std::string Url() const {
        return "icap://127.0.0.1:" + std::to_string(server.Port()) + "/scan";
    }
    // Sets the reply; returns the last request.
    std::string Set(const std::string& r, int ms) {
        std::lock_guard<std::mutex> l(lock);
        reply = r;
        delayMs = ms;
        return last;
    }
    void Serve(int c) {
        std::string in, out =
                            "ICAP/1.0 200 OK\r\nMethods: RESPMOD\r\nISTag: \"fake-1\"\r\n"
                            "Encapsulated: null-body=0\r\n\r\n";
        auto ends = [&in](const std::string& t) {
            return in.size() >= t.size() && in.compare(in.size() - t.size(), t.size(), t) == 0;
        };
        for (char buf[4096];
             !(in.compare(0, 7, "OPTIONS") == 0 && ends("\r\n\r\n")) && !ends("0\r\n\r\n");) {
            pollfd q{c, POLLIN, 0};
            ssize_t n = poll(&q, 1, 5000) == 1 ? recv(c, buf, sizeof buf, 0) : 0;
            if (n <= 0) return;
            in.append(buf, static_cast<size_t>(n));
        }
        if (in.compare(0, 7, "RESPMOD") == 0) {
            std::lock_guard<std::mutex> l(lock);
            last = in;
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
            out = reply;
        }
        send(c, out.data(), out.size(), MSG_NOSIGNAL);
    }
};

// A 200 with the given ICAP headers and encapsulated HTTP status and body.
std::string Icap200(const std::string& headers, const std::string& http, const std::string& body) {
    std::string h = "HTTP/1.1 " + http + "\r\nContent-Type: text/plain\r\n\r\n";
    char size[16];
    std::snprintf(size, sizeof size, "%zx\r\n", body.size());
    return "ICAP/1.0 200 OK\r\n" + headers +
           "Encapsulated: res-hdr=0, res-body=" + std::to_string(h.size()) + "\r\n\r\n" + h + size +
           body + "\r\n0\r\n\r\n";
}

std::string Found(int type, int resolution, const std::string& threat) {
    return "X-Infection-Found: Type=" + std::to_string(type) +
           "; Resolution=" + std::to_string(resolution) + "; Threat=" + threat + ";\r\n";
}

class IcapAdapter : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(a_.Loaded()) << a_.Error(); }
    int Open(const std::string& servers, PEL_INIT** out, uint64_t reconnect = 1) {
        // clang-format off
        return a_.Init({{VS_P_INITSERVERS, servers}, {VS_P_INITTIMEOUT, 20},
                        {VS_P_INITRECONNECTTIME, reconnect}}, out);
        // clang-format on
    }
    Adapter a_{KORMO_ICAP_ADAPTER};
};

// Every reply maps to a verdict, and no error reads as clean; a file whose
// size reads 0 (/proc) is sent to its end; the start-up self-test refuses a
// server that passes everything.
TEST_F(IcapAdapter, MapsEveryReplyToAVerdictAndNeverCleanOnAnError) {
    const std::string ok = Icap200("", "200 OK", "hello"), no = "ICAP/1.0 204 No Content\r\n\r\n";
    const std::string violations =
        "X-Violations-Found: 2\r\n\tf1\r\n\tV.One\r\n\t1\r\n\t2\r\n"
        "\tf2\r\n\tV.Two\r\n\t2\r\n\t2\r\n";
    const struct {
        const char* what;
        std::string reply;
        int rc;
        std::string expect;  // findings joined, or part of the scan error
        int delayMs = 0;
        bool clean = false;
    } cases[] = {
        // clang-format off
        {"204", no, 0, ""},
        {"200 unmodified", ok, 0, ""},
        {"type 0", Icap200(Found(0, 2, "Bad.One"), "403 Forbidden", "blocked"), -2, "Bad.One"},
        {"type 0 and the same name again",
         Icap200(Found(0, 2, "Bad.One") + "X-Virus-ID: Bad.One\r\n", "403 Forbidden", "x"), -2,
         "Bad.One"},
        {"type 1", Icap200(Found(1, 2, "Rule.One"), "403 Forbidden", "x"), -6, "Rule.One"},
        {"type 2", Icap200(Found(2, 2, "Too.Deep"), "403 Forbidden", "x"), 14, "Too.Deep"},
        {"violations", Icap200(violations, "403 Forbidden", "x"), -2, "V.One,V.Two"},
        {"virus id on a 204", "ICAP/1.0 204 No Content\r\nX-Virus-ID: Id.One\r\n\r\n", -2,
         "Id.One"},
        {"403 alone", Icap200("", "403 Forbidden", "no"), -2, "ICAP.Blocked"},
        {"changed body alone", Icap200("", "200 OK", "HELLO"), -2, "ICAP.Modified"},
        {"repaired", Icap200(Found(0, 1, "Fixed.One"), "200 OK", "hi"), -1, "Fixed.One", 0, true},
        {"blocked, clean asked", Icap200(Found(0, 2, "Bad.One"), "403 Forbidden", "x"), -5,
         "Bad.One", 0, true},
        {"4xx", "ICAP/1.0 400 Bad Request\r\n\r\n", 13, "400 Bad Request"},
        {"5xx", "ICAP/1.0 500 Server Error\r\n\r\n", 13, "500 Server Error"},
        {"not ICAP", "HTTP/1.1 200 OK\r\n\r\n", 13, "no ICAP status line"},
        {"200 without Encapsulated", "ICAP/1.0 200 OK\r\n\r\n", 13, "without an Encapsulated"},
        {"bad chunk", Icap200("", "200 OK", "hello").replace(ok.find("5\r\nhello"), 1, "z"), 13,
         "chunk size"},
        {"cut", ok.substr(0, ok.size() - 8), 13, "closed the connection"},
        {"slow", no, 13, "timed out", 1500},
        // clang-format on
    };
    FakeIcap fake;
    ASSERT_TRUE(fake.server.Start());
    PEL_INIT* in = nullptr;
    ASSERT_EQ(0, Open(fake.Url() + ", io=0.5", &in, 0)) << in->pszErrorText;
    EXPECT_NE(nullptr, std::strstr(in->pszEngineVersionText, "fake-1"));
    for (const auto& c : cases) {
        fake.Set(c.reply, c.delayMs);
        Scanner s(a_, in);
        Bytes data = ToBytes("hello");
        EXPECT_EQ(c.rc, s.Bytes(data, "obj", {}, nullptr, VS_A_SCAN | (c.clean ? VS_A_CLEAN : 0)))
            << c.what;
        EXPECT_TRUE(c.rc >= 0 || c.expect == Joined(s.Infections())) << c.what;
        EXPECT_TRUE(c.rc <= 0 || s.ScanErrorHas(c.expect)) << c.what;
        EXPECT_TRUE(c.rc != -1 ||
                    std::string(data.begin(), data.begin() + s.Info()->lBytesCleaned) == "hi");
    }
    fake.Set(no, 0);
    char old[16] = {};
    pthread_getname_np(pthread_self(), old, sizeof old);
    pthread_setname_np(pthread_self(), "SIZE0-PROBE");
    EXPECT_EQ(0, Scanner(a_, in).File("/proc/thread-self/comm"));
    pthread_setname_np(pthread_self(), old);
    EXPECT_NE(std::string::npos, fake.Set(no, 0).find("SIZE0-PROBE\n"));
    EXPECT_EQ(7, Open(fake.Url() + ", selftest=on", &in));
    EXPECT_NE(nullptr, std::strstr(in->pszErrorText, "self-test failed")) << in->pszErrorText;
}

#ifdef KORMO_CICAP_PATH
// c-icap with virus_scan in front of a clamd of its own, on a free loopback
// port, behind a dead server.
TEST_F(IcapAdapter, FindsEicarByNameOnCIcapBehindADeadServer) {
    Clamd clamd;
    std::string error;
    ASSERT_TRUE(clamd.Start(&error)) << error;
    TempDir dir;
    const std::string conf = dir.File("c-icap.conf"), port = std::to_string(FreePort());
    const std::string d = dir.Path() + "/";
    std::ofstream(conf) << "PidFile " << d << "pid\nCommandsSocket " << d
                        << "ctl\nPort 127.0.0.1:" << port
                        << "\nStartServers 1\nMaxServers 1\nThreadsPerChild 8\nTmpDir " << d
                        << "\nModulesDir " KORMO_CICAP_MODULES "\nServicesDir " KORMO_CICAP_MODULES
                           "\nTemplateDir /usr/share/c_icap/templates/\nServerLog "
                        << d << "server.log\nAccessLog " << d << "access.log\nModule common "
                        << "clamd_mod.so\nclamd_mod.ClamdSocket " << clamd.SocketPath()
                        << "\nService antivirus_module virus_scan.so\nServiceAlias avscan "
                           "virus_scan?allow204=on&sizelimit=off&mode=simple\nvirus_scan.ScanFile"
                           "Types TEXT DATA EXECUTABLE ARCHIVE\nvirus_scan.MaxObjectSize 100M\n"
                           "virus_scan.DefaultEngine clamd\n";
    struct Child {
        pid_t pid;
        ~Child() {
            kill(-pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    } icap{fork()};
    if (icap.pid == 0) {
        setpgid(0, 0);
        execl(KORMO_CICAP_PATH, "c-icap", "-N", "-f", conf.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    ASSERT_GT(icap.pid, 0);
    const std::string servers = "icap://127.0.0.1:" + std::to_string(FreePort()) + "/avscan, " +
                                "icap://127.0.0.1:" + port + "/avscan, selftest=on";
    PEL_INIT* in = nullptr;
    int rc = -1;
    for (int i = 0; i < 300 && (rc = Open(servers, &in)) != 0; ++i)  // up to 30 s to listen
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_EQ(0, rc) << in->pszErrorText;
    Scanner s(a_, in);
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "eicar.com"));
    EXPECT_EQ("Eicar-Test-Signature.UNOFFICIAL", Joined(s.Infections()));
    EXPECT_EQ(0, s.File(TestDb() + "/samples/clean.txt"));
    EXPECT_EQ(-2, s.File(TestDb() + "/samples/hash2.bin"));  // beyond the preview
    EXPECT_EQ("Kormo.Test.Hash.2.UNOFFICIAL", Joined(s.Infections()));
    EXPECT_EQ(0, s.Bytes(Bytes(300000, 'a'), "big.txt"));
}
#endif

}  // namespace
