// The ICAP adapter through its entry points: reply cases from a fake ICAP
// server, the start-up self-test, and a real c-icap (virus_scan in front of a
// clamd) behind a dead first server.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
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
class FakeIcap {
  public:
    FakeIcap() {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        listen(fd_, 8);
        getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this] { Run(); });
    }
    ~FakeIcap() {
        stop_ = true;
        thread_.join();
        close(fd_);
    }
    std::string Url() const { return "icap://127.0.0.1:" + std::to_string(port_) + "/scan"; }
    void Set(const std::string& reply, int delayMs) {
        std::lock_guard<std::mutex> l(lock_);
        reply_ = reply;
        delayMs_ = delayMs;
    }
    std::string Last() {
        std::lock_guard<std::mutex> l(lock_);
        return last_;
    }

  private:
    void Run() {
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 50) != 1) continue;
            int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            std::string in;
            char buf[4096];
            auto ends = [&in](const char* t) {
                return in.size() >= std::strlen(t) &&
                       in.compare(in.size() - std::strlen(t), std::string::npos, t) == 0;
            };
            for (int n;
                 !(in.compare(0, 7, "OPTIONS") == 0 && ends("\r\n\r\n")) && !ends("0\r\n\r\n");) {
                pollfd q{c, POLLIN, 0};
                if (poll(&q, 1, 5000) != 1 ||
                    (n = static_cast<int>(recv(c, buf, sizeof buf, 0))) <= 0)
                    break;
                in.append(buf, static_cast<size_t>(n));
            }
            std::string out =
                "ICAP/1.0 200 OK\r\nMethods: RESPMOD\r\nISTag: \"fake-1\"\r\n"
                "Encapsulated: null-body=0\r\n\r\n";
            if (in.compare(0, 7, "RESPMOD") == 0) {
                std::unique_lock<std::mutex> l(lock_);
                last_ = in;
                std::this_thread::sleep_for(std::chrono::milliseconds(delayMs_));
                out = reply_;
            }
            send(c, out.data(), out.size(), MSG_NOSIGNAL);
            close(c);
        }
    }
    int fd_ = -1, port_ = 0;
    std::atomic<bool> stop_{false};
    std::mutex lock_;
    std::string reply_, last_;
    int delayMs_ = 0;
    std::thread thread_;
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

std::string Replace(std::string s, const std::string& from, const std::string& to) {
    return s.replace(s.find(from), from.size(), to);
}

class IcapAdapter : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        adapter_ = new Adapter(KORMO_ICAP_ADAPTER);
        ASSERT_TRUE(adapter_->Loaded()) << adapter_->Error();
        ASSERT_EQ(0, adapter_->Startup());
        ASSERT_EQ(0, adapter_->GetConfig(&config_));
    }
    static void TearDownTestSuite() {
        EXPECT_EQ(0, adapter_->Cleanup());
        delete adapter_;
    }
    int Open(const std::string& servers, PEL_INIT** out, uint64_t reconnect = 1) {
        ParamList init(config_->pInitParams);
        init.SetText(VS_P_INITSERVERS, servers);
        init.SetNumber(VS_P_INITTIMEOUT, 20);
        init.SetNumber(VS_P_INITRECONNECTTIME, reconnect);
        return adapter_->Init(nullptr, init.Get(), out);
    }
    void Close(PEL_INIT** in) {
        PEL_CONFIG* none = nullptr;
        EXPECT_EQ(0, adapter_->End(in, &none));
    }
    static std::string Joined(const std::vector<std::string>& v) {
        std::string s;
        for (const std::string& x : v) s += (s.empty() ? "" : ",") + x;
        return s;
    }

    static Adapter* adapter_;
    static PEL_CONFIG* config_;
};
Adapter* IcapAdapter::adapter_ = nullptr;
PEL_CONFIG* IcapAdapter::config_ = nullptr;

TEST_F(IcapAdapter, MapsEveryReplyToAVerdictAndNeverCleanOnAnError) {
    struct Case {
        const char* what;
        std::string reply;
        int rc;
        std::string expect;  // findings joined, or part of the scan error
        int delayMs = 0;
        bool clean = false;
    };
    const std::string ok = Icap200("", "200 OK", "hello");
    const std::string virus = "X-Infection-Found: Type=0; Resolution=2; Threat=Bad.One;\r\n";
    const Case cases[] = {
        {"204", "ICAP/1.0 204 No Content\r\n\r\n", 0, ""},
        {"200 unmodified", ok, 0, ""},
        {"type 0", Icap200(virus, "403 Forbidden", "blocked"), -2, "Bad.One"},
        {"type 0 and the same name again",
         Icap200(virus + "X-Virus-ID: Bad.One\r\n", "403 Forbidden", "x"), -2, "Bad.One"},
        {"type 1",
         Icap200("X-Infection-Found: Type=1; Resolution=2; Threat=Rule.One;\r\n", "403 Forbidden",
                 "x"),
         -6, "Rule.One"},
        {"type 2",
         Icap200("X-Infection-Found: Type=2; Resolution=2; Threat=Too.Deep;\r\n", "403 Forbidden",
                 "x"),
         14, "Too.Deep"},
        {"violations",
         Icap200("X-Violations-Found: "
                 "2\r\n\tf1\r\n\tV.One\r\n\t1\r\n\t2\r\n\tf2\r\n\tV.Two\r\n\t2\r\n\t2\r\n",
                 "403 Forbidden", "x"),
         -2, "V.One,V.Two"},
        {"virus id on a 204", "ICAP/1.0 204 No Content\r\nX-Virus-ID: Id.One\r\n\r\n", -2,
         "Id.One"},
        {"403 alone", Icap200("", "403 Forbidden", "no"), -2, "ICAP.Blocked"},
        {"changed body alone", Icap200("", "200 OK", "HELLO"), -2, "ICAP.Modified"},
        {"repaired",
         Icap200("X-Infection-Found: Type=0; Resolution=1; Threat=Fixed.One;\r\n", "200 OK", "hi"),
         -1, "Fixed.One", 0, true},
        {"blocked, clean asked", Icap200(virus, "403 Forbidden", "x"), -5, "Bad.One", 0, true},
        {"4xx", "ICAP/1.0 400 Bad Request\r\n\r\n", 13, "400 Bad Request"},
        {"5xx", "ICAP/1.0 500 Server Error\r\n\r\n", 13, "500 Server Error"},
        {"not ICAP", "HTTP/1.1 200 OK\r\n\r\n", 13, "no ICAP status line"},
        {"200 without Encapsulated", "ICAP/1.0 200 OK\r\n\r\n", 13, "without an Encapsulated"},
        {"bad chunk", Replace(ok, "5\r\nhello", "z\r\nhello"), 13, "chunk size"},
        {"cut", ok.substr(0, ok.size() - 8), 13, "closed the connection"},
        {"slow", "ICAP/1.0 204 No Content\r\n\r\n", 13, "timed out", 1500},
    };
    FakeIcap fake;
    PEL_INIT* in = nullptr;
    ASSERT_EQ(0, Open(fake.Url() + ", io=0.5", &in, 0)) << in->pszErrorText;
    EXPECT_NE(nullptr, std::strstr(in->pszEngineVersionText, "fake-1"));
    for (const Case& c : cases) {
        fake.Set(c.reply, c.delayMs);
        Scanner s(*adapter_, in);
        Bytes data = ToBytes("hello");
        int rc = s.Bytes(data, "obj", nullptr, nullptr, VS_A_SCAN | (c.clean ? VS_A_CLEAN : 0));
        EXPECT_EQ(c.rc, rc) << c.what;
        if (c.rc < 0) {
            EXPECT_EQ(c.expect, Joined(s.Infections())) << c.what;
        } else if (c.rc > 0) {
            EXPECT_TRUE(s.ScanErrorHas(c.expect)) << c.what;
        }
        if (c.rc == -1) {
            EXPECT_EQ("hi", std::string(data.begin(), data.begin() + s.Info()->lBytesCleaned));
        }
    }
    // A file whose size reads as 0 (/proc) is sent to its end.
    fake.Set("ICAP/1.0 204 No Content\r\n\r\n", 0);
    char old[16] = {};
    pthread_getname_np(pthread_self(), old, sizeof old);
    pthread_setname_np(pthread_self(), "SIZE0-PROBE");
    EXPECT_EQ(0, Scanner(*adapter_, in).File("/proc/thread-self/comm"));
    pthread_setname_np(pthread_self(), old);
    EXPECT_NE(std::string::npos, fake.Last().find("SIZE0-PROBE\n"));
    Close(&in);
}

TEST_F(IcapAdapter, SelfTestFailsStartUpOnAServerThatPassesEverything) {
    FakeIcap fake;
    fake.Set("ICAP/1.0 204 No Content\r\n\r\n", 0);
    PEL_INIT* in = nullptr;
    EXPECT_EQ(0, Open(fake.Url(), &in));
    Close(&in);
    EXPECT_EQ(7, Open(fake.Url() + ", selftest=on", &in));
    EXPECT_NE(nullptr, std::strstr(in->pszErrorText, "self-test failed")) << in->pszErrorText;
    Close(&in);
}

// c-icap with virus_scan in front of a clamd of its own, on a free loopback port.
class CIcap {
  public:
    bool Start(const std::string& clamdSocket, std::string* error) {
        port_ = FreePort();
        std::string conf = dir_.File("c-icap.conf");
        std::ofstream(conf)
            << "PidFile " << dir_.File("pid") << "\nCommandsSocket " << dir_.File("ctl")
            << "\nPort 127.0.0.1:" << port_ << "\nStartServers 1\nMaxServers 1\n"
            << "ThreadsPerChild 8\nTmpDir " << dir_.Path() << "\nModulesDir " KORMO_CICAP_MODULES
            << "\nServicesDir " KORMO_CICAP_MODULES "\nTemplateDir /usr/share/c_icap/templates/\n"
            << "ServerLog " << dir_.File("server.log") << "\nAccessLog " << dir_.File("access.log")
            << "\nModule common clamd_mod.so\nclamd_mod.ClamdSocket " << clamdSocket
            << "\nService antivirus_module virus_scan.so\n"
            << "ServiceAlias avscan virus_scan?allow204=on&sizelimit=off&mode=simple\n"
            << "virus_scan.ScanFileTypes TEXT DATA EXECUTABLE ARCHIVE\n"
            << "virus_scan.MaxObjectSize 100M\nvirus_scan.DefaultEngine clamd\n";
        if ((pid_ = fork()) == 0) {
            setpgid(0, 0);
            execl(KORMO_CICAP_PATH, "c-icap", "-N", "-f", conf.c_str(),
                  static_cast<char*>(nullptr));
            _exit(127);
        }
        for (int i = 0; i < 300; ++i) {  // up to 30 s
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                *error = "c-icap exited during start-up";
                return false;
            }
            int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(static_cast<uint16_t>(port_));
            a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            bool up = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
            close(fd);
            if (up) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        *error = "c-icap did not listen within 30 s";
        return false;
    }
    ~CIcap() {
        if (pid_ <= 0) return;
        kill(-pid_, SIGTERM);
        for (int i = 0; i < 100 && waitpid(pid_, nullptr, WNOHANG) == 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        kill(-pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    std::string Url() const { return "icap://127.0.0.1:" + std::to_string(port_) + "/avscan"; }

  private:
    TempDir dir_;
    int port_ = 0;
    pid_t pid_ = -1;
};

TEST_F(IcapAdapter, FindsEicarByNameOnCIcapBehindADeadServer) {
    Clamd clamd;
    CIcap icap;
    std::string error;
    ASSERT_TRUE(clamd.Start(&error)) << error;
    ASSERT_TRUE(icap.Start(clamd.SocketPath(), &error)) << error;
    PEL_INIT* in = nullptr;
    std::string dead = "icap://127.0.0.1:" + std::to_string(FreePort()) + "/avscan";
    ASSERT_EQ(0, Open(dead + ", " + icap.Url() + ", selftest=on", &in)) << in->pszErrorText;
    Scanner s(*adapter_, in);
    EXPECT_EQ(-2, s.Bytes(ToBytes(Eicar()), "eicar.com"));
    EXPECT_EQ("Eicar-Test-Signature.UNOFFICIAL", Joined(s.Infections()));
    EXPECT_EQ(0, s.File(TestDb() + "/samples/clean.txt"));
    EXPECT_EQ(-2, s.File(TestDb() + "/samples/hash2.bin"));  // beyond the preview
    EXPECT_EQ("Kormo.Test.Hash.2.UNOFFICIAL", Joined(s.Infections()));
    Bytes big(300000, 'a');
    EXPECT_EQ(0, s.Bytes(big, "big.txt"));
    Close(&in);
}

}  // namespace
