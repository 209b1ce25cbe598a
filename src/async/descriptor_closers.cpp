// SPDX-License-Identifier: Apache-2.0
#include "async/descriptor_closers.h"

#include <pthread.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>

#include "util/attempt.h"
#include "util/error_text.h"
#include "util/log.h"
#include "util/mutex.h"

namespace telvora {

namespace {

constexpr std::chrono::seconds kIdleTime{5};
constexpr size_t kCloserStackBytes = size_t{256} << 10;
// Reads of a connection that is closed: as many as its unread messages can need at most.
constexpr int kMaxDrainReads = 1024;

// Closing a socket waits for its unsent data if SO_LINGER is set (socket(7)).
void withoutLinger(int fd) {
    const linger off{};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &off, sizeof off);
}

#ifndef SO_PASSRIGHTS
#define SO_PASSRIGHTS 83
#endif

}  // namespace

void passDescriptors(int socket, bool pass) {
    const int value = pass ? 1 : 0;
    setsockopt(socket, SOL_SOCKET, SO_PASSRIGHTS, &value, sizeof value);
}

std::vector<int> descriptorsOf(msghdr& message) {
    std::vector<int> descriptors;
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr; part = CMSG_NXTHDR(&message, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
        const size_t size = part->cmsg_len - CMSG_LEN(0);
        for (size_t at = 0; at + sizeof(int) <= size; at += sizeof(int)) {
            std::memcpy(&descriptors.emplace_back(), CMSG_DATA(part) + at, sizeof(int));
        }
    }
    return descriptors;
}

struct DescriptorClosers::State : std::enable_shared_from_this<State> {
    class Line;
    class ConnectionCloser;
    struct Descriptor {
        int fd;
        bool isConnection;
    };

    explicit State(std::function<void(int)> closeFunction) : closeFd(std::move(closeFunction)) {}

    void add(const std::shared_ptr<Line>& line, Descriptor descriptor) noexcept TELVORA_EXCLUDES(mutex);
    void queue(const std::shared_ptr<Line>& line, Descriptor descriptor) TELVORA_EXCLUDES(mutex);
    void startThread() TELVORA_REQUIRES(mutex);
    void serve();
    std::shared_ptr<Line> nextLine() TELVORA_EXCLUDES(mutex);
    void work(const std::shared_ptr<Line>& line) TELVORA_EXCLUDES(mutex);
    bool closeFirst(Line& line) TELVORA_EXCLUDES(mutex);
    void closeNow(Line& line, Descriptor descriptor) const;
    void drain(int connection) const;
    static void* threadMain(void* argument);

    const std::function<void(int)> closeFd;
    Mutex mutex;
    std::condition_variable_any changed;
    bool stopping TELVORA_GUARDED_BY(mutex) = false;
    size_t threads TELVORA_GUARDED_BY(mutex) = 0;
    size_t idleThreads TELVORA_GUARDED_BY(mutex) = 0;
    // Lines with descriptors that no thread works off.
    std::deque<std::shared_ptr<Line>> ready TELVORA_GUARDED_BY(mutex);
    // A user with descriptors keeps the line, even if its thread is blocked.
    std::map<uid_t, std::weak_ptr<Line>> users TELVORA_GUARDED_BY(mutex);
};

// The descriptors of one user that wait for close(2). Closes the descriptors that the user's programs sent.
class DescriptorClosers::State::Line final : public FdCloser, public std::enable_shared_from_this<Line> {
  public:
    explicit Line(std::shared_ptr<State> state) : state_(std::move(state)) {}

    void addOne() override { ++count; }
    void releaseOne() override { --count; }
    void close(int fd) override { state_->add(shared_from_this(), {fd, false}); }
    std::shared_ptr<FdCloser> ofReceived() override { return shared_from_this(); }
    bool hasRoom() const override { return count + kMostDescriptorsOfAMessage <= kMaxDescriptorsOfUser; }

    std::atomic<size_t> count{0};  // open
    // The state's mutex guards both.
    std::deque<Descriptor> waiting;
    bool scheduled = false;  // ready, or worked off

  private:
    const std::shared_ptr<State> state_;
};

class DescriptorClosers::State::ConnectionCloser final : public FdCloser {
  public:
    ConnectionCloser(std::shared_ptr<State> state, std::shared_ptr<Line> line)
        : state_(std::move(state)), line_(std::move(line)) {}

    void addOne() override { line_->addOne(); }
    void releaseOne() override { line_->releaseOne(); }
    void close(int fd) override { state_->add(line_, {fd, true}); }
    std::shared_ptr<FdCloser> ofReceived() override { return line_; }
    bool hasRoom() const override { return line_->hasRoom(); }

  private:
    const std::shared_ptr<State> state_;
    const std::shared_ptr<Line> line_;
};

// Without memory for the line, or a thread for the lines, the calling thread closes.
void DescriptorClosers::State::add(const std::shared_ptr<Line>& line, Descriptor descriptor) noexcept {
    const bool isQueued = attempt("DescriptorClosers", [&] { queue(line, descriptor); });
    if (!isQueued) return closeNow(*line, descriptor);
    std::shared_ptr<Line> unserved;
    {
        const MutexLock lock(mutex);
        if (ready.empty()) return;
        if (ready.size() <= idleThreads) return changed.notify_one();
        attempt("DescriptorClosers", [this]() TELVORA_NO_THREAD_SAFETY_ANALYSIS { startThread(); });
        if (threads > 0 || stopping) return;
        unserved = std::move(ready.front());
        ready.pop_front();
    }
    work(unserved);
}

void DescriptorClosers::State::queue(const std::shared_ptr<Line>& line, Descriptor descriptor) {
    const MutexLock lock(mutex);
    if (!line->scheduled) ready.push_back(line);
    try {
        line->waiting.push_back(descriptor);
    } catch (const std::bad_alloc&) {
        if (!line->scheduled) ready.pop_back();
        throw;
    }
    line->scheduled = true;
}

// On failure, the next descriptor tries again, and the threads that there are work on.
void DescriptorClosers::State::startThread() {
    if (stopping || threads >= kMaxThreads) return;
    auto self = std::make_unique<std::shared_ptr<State>>(shared_from_this());
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kCloserStackBytes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread{};
    const int error = pthread_create(&thread, &attributes, &State::threadMain, self.get());
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        TELVORA_LOG(kLogWarning, "DescriptorClosers: can't start a thread: %s", errorText(error).c_str());
        return;
    }
    static_cast<void>(self.release());  // owned by the thread now
    ++threads;
}

void* DescriptorClosers::State::threadMain(void* argument) {
    const std::unique_ptr<std::shared_ptr<State>> state(static_cast<std::shared_ptr<State>*>(argument));
    pthread_setname_np(pthread_self(), "telvora-closer");
    (*state)->serve();
    return nullptr;
}

void DescriptorClosers::State::serve() {
    while (const auto line = nextLine())
        work(line);
}

// Null if the calling thread is to end.
std::shared_ptr<DescriptorClosers::State::Line> DescriptorClosers::State::nextLine() {
    const auto deadline = std::chrono::steady_clock::now() + kIdleTime;
    const MutexLock lock(mutex);
    ++idleThreads;
    bool inTime = true;
    while (!stopping && ready.empty() && inTime)
        inTime = changed.wait_until(mutex, deadline) == std::cv_status::no_timeout;
    --idleThreads;
    if (ready.empty()) {
        --threads;
        changed.notify_all();
        return nullptr;
    }
    auto line = std::move(ready.front());
    ready.pop_front();
    return line;
}

// Lets the other lines have their turn after each descriptor, if there is memory for the end of the queue.
void DescriptorClosers::State::work(const std::shared_ptr<Line>& line) {
    bool queued = false;
    while (!queued && closeFirst(*line)) {
        const MutexLock lock(mutex);
        queued =
            attempt("DescriptorClosers", [&]() TELVORA_NO_THREAD_SAFETY_ANALYSIS { ready.push_back(line); });
    }
}

// Whether more descriptors wait.
bool DescriptorClosers::State::closeFirst(Line& line) {
    Descriptor descriptor{};
    {
        const MutexLock lock(mutex);
        descriptor = line.waiting.front();
        line.waiting.pop_front();
    }
    closeNow(line, descriptor);
    const MutexLock lock(mutex);
    line.scheduled = !line.waiting.empty();
    return line.scheduled;
}

void DescriptorClosers::State::closeNow(Line& line, Descriptor descriptor) const {
    if (descriptor.isConnection) attempt("DescriptorClosers", [&] { drain(descriptor.fd); });
    withoutLinger(descriptor.fd);
    closeFd(descriptor.fd);
    line.releaseOne();
}

// Takes the descriptors that were not read out of the connection, so that none is closed with it.
void DescriptorClosers::State::drain(int connection) const {
    shutdown(connection, SHUT_RDWR);
    for (int reads = 0; reads < kMaxDrainReads; ++reads) {
        std::array<char, 4096> bytes;
        ReceivedDescriptors control;
        iovec part{bytes.data(), bytes.size()};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control.bytes;
        message.msg_controllen = sizeof control.bytes;
        const ssize_t received = recvmsg(connection, &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
        if (received < 0 && errno == EINTR) continue;
        if (received <= 0) return;
        for (const int fd : descriptorsOf(message)) {
            withoutLinger(fd);
            closeFd(fd);
        }
    }
}

DescriptorClosers::DescriptorClosers(std::function<void(int)> close)
    : state_(std::make_shared<State>(close ? std::move(close) : [](int fd) { ::close(fd); })) {}

DescriptorClosers::~DescriptorClosers() {
    const MutexLock lock(state_->mutex);
    state_->stopping = true;
    state_->changed.notify_all();
}

std::shared_ptr<FdCloser> DescriptorClosers::of(uid_t user) {
    const MutexLock lock(state_->mutex);
    std::weak_ptr<State::Line>& known = state_->users[user];
    auto line = known.lock();
    if (!line) {
        line = std::make_shared<State::Line>(state_);
        known = line;
        std::erase_if(state_->users, [](const auto& entry) { return entry.second.expired(); });
    }
    return std::make_shared<State::ConnectionCloser>(state_, std::move(line));
}

}  // namespace telvora
