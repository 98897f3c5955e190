// In-memory doubles of the platform services the Studio link uses. Each
// records what was asked of it, so tests can assert the exact words and
// order, and can be told to fail. Thread-safe where the real service is
// called from more than one strand (the peer check runs on the hand-over
// listener's strand while the establishment runs on the bridge's).
#pragma once
#include <algorithm>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/ApplicationLauncher.h"
#include "platform/CodeSigning.h"
#include "platform/Crypto.h"
#include "platform/NotificationCenter.h"
#include "platform/ProcessSockets.h"
#include "platform/RunningApplications.h"

namespace testsupport {

// The one lock of a double, held around every look at its state.
class Guarded {
protected:
    template <class F>
    auto locked(F f) const {
        std::lock_guard lock(mutex_);
        return f();
    }
    template <class Map, class Key>
    static typename Map::mapped_type found(const Map& map, const Key& key) {
        auto it = map.find(key);
        return it == map.end() ? typename Map::mapped_type{} : it->second;
    }

private:
    mutable std::mutex mutex_;
};

class FakeNotificationCenter final : public platform::NotificationCenter, Guarded {
public:
    struct Posted {
        std::string name, object;
    };
    std::optional<platform::SystemError> post(const std::string& name, const std::string& object) override {
        auto [failed, hook] = locked([&] {
            if (!failure) posted_.push_back({name, object});
            return std::pair(failure, onPost);
        });
        if (!failed && hook) hook({name, object});
        return failed;
    }
    std::vector<Posted> posted() const { return locked([&] { return posted_; }); }

    // Set before use; read under the lock.
    std::optional<platform::SystemError> failure;
    std::function<void(const Posted&)> onPost;

private:
    std::vector<Posted> posted_;
};

class FakeRunningApplications final : public platform::RunningApplications, Guarded {
public:
    std::vector<platform::RunningApplication> withBundleIdentifier(const std::string& identifier) const override {
        return locked([&] { return found(apps_, identifier); });
    }
    std::vector<pid_t> runningFrom(const std::filesystem::path& app) const override {
        return locked([&] { return found(from_, app); });
    }
    void set(const std::string& identifier, std::vector<platform::RunningApplication> apps) {
        locked([&] { apps_[identifier] = std::move(apps); });
    }
    void setFrom(const std::filesystem::path& app, std::vector<pid_t> pids) {
        locked([&] { from_[app] = std::move(pids); });
    }

private:
    std::map<std::string, std::vector<platform::RunningApplication>> apps_;
    std::map<std::filesystem::path, std::vector<pid_t>> from_;
};

// Sockets by the ports seen from their holder's side, and which processes
// hold which socket inodes.
class FakeProcessSockets final : public platform::ProcessSockets, Guarded {
public:
    std::optional<platform::LoopbackSocket> loopbackSocket(uint16_t localPort, uint16_t remotePort) const override {
        return locked([&]() -> std::optional<platform::LoopbackSocket> {
            auto it = sockets_.find({localPort, remotePort});
            return it == sockets_.end() ? std::nullopt : std::optional(it->second);
        });
    }
    std::optional<std::vector<uint64_t>> socketInodes(pid_t pid) const override {
        return locked([&]() -> std::optional<std::vector<uint64_t>> {
            if (unreadable_.count(pid)) return std::nullopt;
            return found(held_, pid);
        });
    }
    std::optional<std::vector<pid_t>> holders(uint64_t inode) const override {
        return locked([&]() -> std::optional<std::vector<pid_t>> {
            if (!unreadable_.empty()) return std::nullopt;
            std::vector<pid_t> holding;
            for (const auto& [pid, inodes] : held_)
                if (std::find(inodes.begin(), inodes.end(), inode) != inodes.end()) holding.push_back(pid);
            return holding;
        });
    }

    void connection(uint16_t localPort, uint16_t remotePort, platform::LoopbackSocket socket) {
        locked([&] { sockets_[{localPort, remotePort}] = socket; });
    }
    void hold(pid_t pid, std::vector<uint64_t> inodes) { locked([&] { held_[pid] = std::move(inodes); }); }
    void unreadable(pid_t pid) { locked([&] { unreadable_.insert(pid); }); }

private:
    std::map<std::pair<uint16_t, uint16_t>, platform::LoopbackSocket> sockets_;
    std::map<pid_t, std::vector<uint64_t>> held_;
    std::set<pid_t> unreadable_;
};

class FakeCodeSigning final : public platform::CodeSigning, Guarded {
public:
    bool satisfies(pid_t pid, const std::string& requirement) const override {
        return locked([&] {
            checked_.push_back({pid, requirement});
            return signedPids_.count(pid) > 0;
        });
    }
    bool validNow(pid_t pid, const std::string& requirement) const override {
        return satisfies(pid, requirement) && locked([&] { return !hindered_.count(pid); });
    }
    std::optional<std::string> ownTeam() const override {
        return locked([&] {
            ++teamReads_;
            return team_;
        });
    }

    void sign(pid_t pid) { locked([&] { signedPids_.insert(pid); }); }
    // Signed, but stopped or traced.
    void hinder(pid_t pid) { locked([&] { hindered_.insert(pid); }); }
    void setTeam(std::optional<std::string> team) { locked([&] { team_ = std::move(team); }); }
    std::vector<std::pair<pid_t, std::string>> checked() const { return locked([&] { return checked_; }); }
    int teamReads() const { return locked([&] { return teamReads_; }); }

private:
    std::set<pid_t> signedPids_, hindered_;
    std::optional<std::string> team_;
    mutable std::vector<std::pair<pid_t, std::string>> checked_;
    mutable int teamReads_ = 0;
};

class FakeApplicationLauncher final : public platform::ApplicationLauncher, Guarded {
public:
    std::optional<platform::SystemError> openApplication(const std::filesystem::path& app) override {
        return locked([&] {
            opened_.push_back(app);
            return failure;
        });
    }
    std::optional<platform::SystemError> openURLs(const std::vector<std::filesystem::path>&,
                                                  const std::filesystem::path&) override {
        return failure;
    }
    std::vector<std::filesystem::path> opened() const { return locked([&] { return opened_; }); }
    std::optional<platform::SystemError> failure;

private:
    std::vector<std::filesystem::path> opened_;
};

// Hands out the bytes 0, 1, 2, ... continuing across calls, or fails.
class FakeSecureRandom final : public platform::SecureRandom, Guarded {
public:
    bool fill(std::span<uint8_t> bytes) override {
        return locked([&] {
            ++calls_;
            if (!fails)
                for (auto& b : bytes) b = next_++;
            return !fails;
        });
    }
    int calls() const { return locked([&] { return calls_; }); }
    bool fails = false;

private:
    uint8_t next_ = 0;
    int calls_ = 0;
};

}  // namespace testsupport
