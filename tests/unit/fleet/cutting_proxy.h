/**
 * @file
 * Stands between a program and its PostgreSQL server, and cuts the connection when the server has
 * done what it was asked, but nobody has been told yet.
 */
#ifndef CUTTING_PROXY_H
#define CUTTING_PROXY_H

#include "pg_server.h"
#include "temp_directory.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace fleet {

/** Takes one connection after the other. */
class CuttingProxy {
  public:
    /** @param server the directory of its socket */
    explicit CuttingProxy(std::string server) : server_(std::move(server) + NAME) {
        const sockaddr_un place = placeOf(directory_.path() + NAME);
        bind(listener_, reinterpret_cast<const sockaddr*>(&place), sizeof(place));
        listen(listener_, 8);
        thread_ = std::thread([this] { run(); });
    }

    ~CuttingProxy() {
        isOver_ = true;
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
        close(late_);
    }

    CuttingProxy(const CuttingProxy&) = delete;
    CuttingProxy& operator=(const CuttingProxy&) = delete;

    /** A place on the server, by way of here. */
    std::string through(std::string place) const {
        std::string from = server_.substr(0, server_.size() - strlen(NAME));
        std::string to = directory_.path();
        for (std::string* path : {&from, &to}) {
            for (auto at = path->find('/'); at != std::string::npos; at = path->find('/')) {
                path->replace(at, 1, "%2F");
            }
        }
        return place.replace(place.find(from), from.size(), to);
    }

    /** The next commit is done, and its answer never comes. */
    void cutAtCommit() { cuts_ = true; }
    bool hasCut() const { return !cuts_; }

    /** The next commit does not come to the server yet, and nothing after it. */
    void holdAtCommit() { holds_ = true; }
    bool hasLate() const { return late_ >= 0; }

    /** It comes there. Returns when the server has done it. */
    void makeLate() {
        send(late_, lateBytes_.data(), lateBytes_.size(), MSG_NOSIGNAL);
        std::array<char, 65536> answer{};
        recv(late_, answer.data(), answer.size(), 0);
        close(late_.exchange(-1));
    }

    /** If none has come, none will be. */
    void letPass() {
        cuts_ = false;
        holds_ = false;
    }

  private:
    static constexpr char NAME[] = "/.s.PGSQL.5432";
    // An unnamed portal, bound to the statement of this name.
    static constexpr std::string_view COMMIT{"\0commit\0", 8};

    static sockaddr_un placeOf(const std::string& path) {
        sockaddr_un place{};
        place.sun_family = AF_UNIX;
        path.copy(place.sun_path, sizeof(place.sun_path) - 1);
        return place;
    }

    void run() {
        while (!isOver_) {
            pollfd entry{listener_, POLLIN, 0};
            if (poll(&entry, 1, 50) <= 0) {
                continue;
            }
            const int client = accept(listener_, nullptr, nullptr);
            const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const sockaddr_un place = placeOf(server_);
            if (client >= 0 &&
                connect(server, reinterpret_cast<const sockaddr*>(&place), sizeof(place)) == 0) {
                while (!isOver_ && pass(client, server)) {
                }
            }
            if (late_ != server) {
                close(server);
            }
            close(client);
        }
    }

    // @return whether both are still there
    bool pass(int client, int server) {
        std::array<pollfd, 2> entries{pollfd{client, POLLIN, 0}, pollfd{server, POLLIN, 0}};
        poll(entries.data(), entries.size(), 50);
        std::array<char, 65536> bytes{};
        if (entries[0].revents != 0) {
            const ssize_t size = recv(client, bytes.data(), bytes.size(), 0);
            const std::string_view sent(bytes.data(),
                                        static_cast<size_t>(std::max(size, ssize_t{0})));
            const bool isCommit = sent.find(COMMIT) != std::string_view::npos;
            if (isCommit && holds_.exchange(false)) {
                lateBytes_ = sent;
                late_ = server;
                return false;
            }
            if (size <= 0 ||
                send(server, bytes.data(), static_cast<size_t>(size), MSG_NOSIGNAL) != size) {
                return false;
            }
            if (isCommit && cuts_) {
                recv(server, bytes.data(), bytes.size(), 0); // it is done
                cuts_ = false;
                return false;
            }
        }
        if (entries[1].revents != 0) {
            const ssize_t size = recv(server, bytes.data(), bytes.size(), 0);
            return size > 0 &&
                   send(client, bytes.data(), static_cast<size_t>(size), MSG_NOSIGNAL) == size;
        }
        return true;
    }

    support::TempDirectory directory_;
    std::string server_;
    int listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::atomic<bool> cuts_ = false;
    std::atomic<bool> holds_ = false;
    std::atomic<int> late_ = -1; ///< the server's side of a connection that was held
    std::string lateBytes_;
    std::atomic<bool> isOver_ = false;
    std::thread thread_;
};

} // namespace fleet

#endif
