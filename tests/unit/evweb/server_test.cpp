/** The sockets, and whom a connection is counted with. */
#include "server.h"
#include "temp_directory.h"

#include <arpa/inet.h>
#include <csignal>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace evweb;

std::string clientAt(const std::string& address) {
    sockaddr_storage peer{};
    const bool isV4 = address.find(':') == std::string::npos;
    peer.ss_family = isV4 ? AF_INET : AF_INET6;
    void* place = isV4 ? static_cast<void*>(&reinterpret_cast<sockaddr_in&>(peer).sin_addr)
                       : &reinterpret_cast<sockaddr_in6&>(peer).sin6_addr;
    EXPECT_EQ(inet_pton(peer.ss_family, address.c_str(), place), 1) << address;
    return clientOf(reinterpret_cast<const sockaddr&>(peer));
}

TEST(Clients, HaveAllAddressesOfTheirNetwork) {
    EXPECT_EQ(clientAt("2001:db8:1:2:3:4:5:6"), "2001:db8:1:2::/64");
    EXPECT_EQ(clientAt("2001:db8:1:2::1"), "2001:db8:1:2::/64");
    EXPECT_EQ(clientAt("2001:db8:1:3::1"), "2001:db8:1:3::/64");
    EXPECT_EQ(clientAt("fe80::1:2"), "fe80::1:2");
}

TEST(Clients, OfIpv4AreTheSameInEitherForm) {
    EXPECT_EQ(clientAt("192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(clientAt("::ffff:192.0.2.7"), "192.0.2.7");
    EXPECT_EQ(clientAt("::ffff:192.0.2.8"), "192.0.2.8");
}

TEST(Clients, OfThisHostAreLocal) {
    for (const char* address : {"127.0.0.1", "127.9.9.9", "::1", "::ffff:127.0.0.1"}) {
        EXPECT_EQ(clientAt(address), LOCAL) << address;
    }
    EXPECT_EQ(clientOf(sockaddr{AF_UNIX, {}}), LOCAL);
    EXPECT_EQ(clientAt("::2"), "::/64");
}

/** A server in a process of its own; every answer is larger than a socket takes. */
class ServerProcess {
  public:
    explicit ServerProcess(const std::string& path) : path_(path), process_(fork()) {
        if (process_ == 0) {
            ServerSettings settings;
            settings.listen.path = path;
            settings.connections = 1;
            settings.sendTime = std::chrono::milliseconds(100);
            settings.answer = [](const Request&) {
                return Response{.body = std::string(4'000'000, 'x')};
            };
            settings.say = [](const std::string&) {};
            serve(settings);
            _exit(0);
        }
    }
    ~ServerProcess() {
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    /** A connection that has asked once; waits until the server is there. */
    int ask() const {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        path_.copy(address.sun_path, sizeof(address.sun_path) - 1);
        const int link = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        while (connect(link, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            std::this_thread::yield();
        }
        const std::string request = "GET / HTTP/1.1\r\n\r\n";
        send(link, request.data(), request.size(), MSG_NOSIGNAL);
        return link;
    }

    /** The first bytes of an answer. */
    std::string firstLine() const {
        const int link = ask();
        std::array<char, 12> bytes{};
        const ssize_t count = recv(link, bytes.data(), bytes.size(), MSG_WAITALL);
        close(link);
        return {bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

  private:
    std::string path_;
    pid_t process_;
};

TEST(Server, ClientThatDoesNotReadLosesItsConnection) {
    const support::TempDirectory directory;
    const ServerProcess server(directory.file("web.sock"));
    const int idle = server.ask();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    std::string line = server.firstLine();
    EXPECT_EQ(line, "HTTP/1.1 503"); // there is room for one connection only
    while (line != "HTTP/1.1 200" && std::chrono::steady_clock::now() < end) {
        line = server.firstLine();
    }
    EXPECT_EQ(line, "HTTP/1.1 200");
    close(idle);
}

} // namespace
