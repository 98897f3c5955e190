// In-memory doubles of the platform services the Studio link uses. Each
// records what was asked of it, so tests can assert the exact words and
// order, and can be told to fail. Thread-safe where the real service is
// called from more than one strand (the peer check runs on the hand-over
// listener's strand while the establishment runs on the bridge's).
#pragma once
#include <algorithm>
#include <cstring>
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

class FakeNotificationCenter final : public platform::NotificationCenter {
public:
    struct Posted {
        std::string name;
        std::string object;
    };

    std::optional<platform::SystemError> post(const std::string& name, const std::string& object) override {
        std::function<void(const Posted&)> hook;
        {
            std::lock_guard lock(mutex_);
            if (failure) return failure;
            posted_.push_back({name, object});
            hook = onPost;
        }
        if (hook) hook({name, object});
        return std::nullopt;
    }

    std::vector<Posted> posted() const {
        std::lock_guard lock(mutex_);
        return posted_;
    }

    // Set before use; read under the lock.
    std::optional<platform::SystemError> failure;
    std::function<void(const Posted&)> onPost;

private:
    mutable std::mutex mutex_;
    std::vector<Posted> posted_;
};

class FakeRunningApplications final : public platform::RunningApplications {
public:
    std::vector<platform::RunningApplication> withBundleIdentifier(const std::string& identifier) const override {
        std::lock_guard lock(mutex_);
        asked_.push_back(identifier);
        auto it = apps_.find(identifier);
        return it == apps_.end() ? std::vector<platform::RunningApplication>{} : it->second;
    }

    std::vector<pid_t> runningFrom(const std::filesystem::path& app) const override {
        std::lock_guard lock(mutex_);
        auto it = from_.find(app);
        return it == from_.end() ? std::vector<pid_t>{} : it->second;
    }

    void set(const std::string& identifier, std::vector<platform::RunningApplication> apps) {
        std::lock_guard lock(mutex_);
        apps_[identifier] = std::move(apps);
    }
    void setFrom(const std::filesystem::path& app, std::vector<pid_t> pids) {
        std::lock_guard lock(mutex_);
        from_[app] = std::move(pids);
    }
    std::vector<std::string> asked() const {
        std::lock_guard lock(mutex_);
        return asked_;
    }

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::vector<platform::RunningApplication>> apps_;
    std::map<std::filesystem::path, std::vector<pid_t>> from_;
    mutable std::vector<std::string> asked_;
};

// Sockets by the ports seen from their holder's side, and which processes
// hold which socket inodes.
class FakeProcessSockets final : public platform::ProcessSockets {
public:
    std::optional<platform::LoopbackSocket> loopbackSocket(uint16_t localPort, uint16_t remotePort) const override {
        std::lock_guard lock(mutex_);
        auto it = sockets_.find({localPort, remotePort});
        if (it == sockets_.end()) return std::nullopt;
        return it->second;
    }
    std::optional<std::vector<uint64_t>> socketInodes(pid_t pid) const override {
        std::lock_guard lock(mutex_);
        if (unreadable_.count(pid)) return std::nullopt;
        auto it = held_.find(pid);
        return it == held_.end() ? std::vector<uint64_t>{} : it->second;
    }
    std::optional<std::vector<pid_t>> holders(uint64_t inode) const override {
        std::lock_guard lock(mutex_);
        if (!unreadable_.empty()) return std::nullopt;
        std::vector<pid_t> found;
        for (const auto& [pid, inodes] : held_)
            if (std::find(inodes.begin(), inodes.end(), inode) != inodes.end()) found.push_back(pid);
        return found;
    }

    void connection(uint16_t localPort, uint16_t remotePort, platform::LoopbackSocket socket) {
        std::lock_guard lock(mutex_);
        sockets_[{localPort, remotePort}] = socket;
    }
    void hold(pid_t pid, std::vector<uint64_t> inodes) {
        std::lock_guard lock(mutex_);
        held_[pid] = std::move(inodes);
    }
    void unreadable(pid_t pid) {
        std::lock_guard lock(mutex_);
        unreadable_.insert(pid);
    }

private:
    mutable std::mutex mutex_;
    std::map<std::pair<uint16_t, uint16_t>, platform::LoopbackSocket> sockets_;
    std::map<pid_t, std::vector<uint64_t>> held_;
    std::set<pid_t> unreadable_;
};

class FakeCodeSigning final : public platform::CodeSigning {
public:
    bool satisfies(pid_t pid, const std::string& requirement) const override {
        std::lock_guard lock(mutex_);
        checked_.push_back({pid, requirement});
        return signedPids_.count(pid) > 0 && (!acceptedRequirement || *acceptedRequirement == requirement);
    }
    bool validNow(pid_t pid, const std::string& requirement) const override {
        if (!satisfies(pid, requirement)) return false;
        std::lock_guard lock(mutex_);
        return !hindered_.count(pid);
    }
    std::optional<std::string> ownTeam() const override {
        std::lock_guard lock(mutex_);
        ++teamReads_;
        return team_;
    }

    void sign(pid_t pid) {
        std::lock_guard lock(mutex_);
        signedPids_.insert(pid);
    }
    // Signed, but stopped or traced.
    void hinder(pid_t pid) {
        std::lock_guard lock(mutex_);
        hindered_.insert(pid);
    }
    void setTeam(std::optional<std::string> team) {
        std::lock_guard lock(mutex_);
        team_ = std::move(team);
    }
    std::vector<std::pair<pid_t, std::string>> checked() const {
        std::lock_guard lock(mutex_);
        return checked_;
    }
    int teamReads() const {
        std::lock_guard lock(mutex_);
        return teamReads_;
    }
    // When set, only this exact requirement text is satisfied.
    std::optional<std::string> acceptedRequirement;

private:
    mutable std::mutex mutex_;
    std::set<pid_t> signedPids_;
    std::set<pid_t> hindered_;
    std::optional<std::string> team_;
    mutable std::vector<std::pair<pid_t, std::string>> checked_;
    mutable int teamReads_ = 0;
};

class FakeApplicationLauncher final : public platform::ApplicationLauncher {
public:
    std::optional<platform::SystemError> openApplication(const std::filesystem::path& app) override {
        std::function<void(const std::filesystem::path&)> hook;
        {
            std::lock_guard lock(mutex_);
            opened_.push_back(app);
            if (failure) return failure;
            hook = onOpen;
        }
        if (hook) hook(app);
        return std::nullopt;
    }
    std::optional<platform::SystemError> openURLs(const std::vector<std::filesystem::path>& files,
                                                  const std::filesystem::path& app) override {
        std::lock_guard lock(mutex_);
        openedFiles_.push_back({files, app});
        return failure;
    }

    std::vector<std::filesystem::path> opened() const {
        std::lock_guard lock(mutex_);
        return opened_;
    }
    // Every openURLs: the files and the application they were handed to.
    std::vector<std::pair<std::vector<std::filesystem::path>, std::filesystem::path>> openedFiles() const {
        std::lock_guard lock(mutex_);
        return openedFiles_;
    }
    std::optional<platform::SystemError> failure;
    std::function<void(const std::filesystem::path&)> onOpen;

private:
    mutable std::mutex mutex_;
    std::vector<std::filesystem::path> opened_;
    std::vector<std::pair<std::vector<std::filesystem::path>, std::filesystem::path>> openedFiles_;
};

// Hands out the bytes 0, 1, 2, ... continuing across calls, or fails.
class FakeSecureRandom final : public platform::SecureRandom {
public:
    bool fill(std::span<uint8_t> bytes) override {
        std::lock_guard lock(mutex_);
        ++calls_;
        if (fails) return false;
        for (auto& b : bytes) b = next_++;
        return true;
    }
    int calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    bool fails = false;

private:
    mutable std::mutex mutex_;
    uint8_t next_ = 0;
    int calls_ = 0;
};

}  // namespace testsupport
