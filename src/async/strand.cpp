// SPDX-License-Identifier: Apache-2.0
#include "async/strand.h"

#include <array>
#include <asio/bind_allocator.hpp>
#include <asio/post.hpp>
#include <cstddef>
#include <mutex>
#include <new>

#include "async/handler_memory.h"

namespace telvora {

namespace {

// Items of a strand that need no further memory.
constexpr size_t kOwnNodes = 3;
// Of the operation that asio makes of a Runner.
using RunnerMemory = HandlerMemory<1, 96>;

}  // namespace

thread_local Strand::Turn* Strand::current_ = nullptr;

struct Strand::State : std::enable_shared_from_this<State> {
    struct Node {
        Node* next = nullptr;
        Item item;  // empty: an own node is free
    };

    explicit State(asio::io_context& context) : loop(context) {}
    ~State() { drop(); }

    bool isOwn(const Node* node) const { return node >= ownNodes.begin() && node < ownNodes.end(); }
    Node* takeOwnNode() {
        for (Node& node : ownNodes) {
            if (!node.item) return &node;
        }
        throw std::bad_alloc();
    }
    bool add(Item item);
    Item takeFirst();
    // Takes the right to run items, if no thread has it.
    bool take() {
        const std::lock_guard lock(mutex);
        return !std::exchange(isTaken, true);
    }
    // Returns the right, or has it taken over by a runner for the items that wait.
    void giveBack() noexcept {
        {
            const std::lock_guard lock(mutex);
            isTaken = waiting != 0;
            if (!isTaken) return;
        }
        postRunner();
    }
    void postRunner() noexcept;
    void drop() noexcept;

    asio::io_context& loop;
    // Innermost, as the locks of asio: no item runs or ends while it is held. It guards all up to ownNodes.
    std::mutex mutex;
    bool isTaken = false;
    bool isDropped = false;
    size_t waiting = 0;
    Node* first = nullptr;
    Node* last = nullptr;
    std::array<Node, kOwnNodes> ownNodes;
    // At most one runner waits: only who has the right to run items posts it.
    RunnerMemory runnerMemory;
};

// Runs the items that wait, on the loop.
struct Strand::Runner {
    explicit Runner(std::shared_ptr<State> of) noexcept : state(std::move(of)) {}
    Runner(Runner&&) noexcept = default;
    // Items may own the strand.
    ~Runner() {
        if (state) state->drop();
    }

    void operator()() {
        const std::shared_ptr<State> running = std::move(state);
        const Turn turn(*running, nullptr);
        size_t items = 0;
        {
            const std::lock_guard lock(running->mutex);
            items = running->waiting;
        }
        for (; items > 0; --items)
            running->takeFirst()();
    }

    std::shared_ptr<State> state;
};

// True if a runner is to be posted.
bool Strand::State::add(Item item) {
    auto* node = new (std::nothrow) Node;
    const std::lock_guard lock(mutex);
    if (isDropped) {
        delete node;
        return false;
    }
    if (node == nullptr) node = takeOwnNode();
    node->item = std::move(item);
    node->next = nullptr;
    (first == nullptr ? first : last->next) = node;
    last = node;
    ++waiting;
    return !std::exchange(isTaken, true);
}

Strand::Item Strand::State::takeFirst() {
    Node* node = nullptr;
    Item item;
    {
        const std::lock_guard lock(mutex);
        node = first;
        first = node->next;
        --waiting;
        item = std::move(node->item);
        if (isOwn(node)) return item;
    }
    delete node;
    return item;
}

// Needs no memory but the runner's.
void Strand::State::postRunner() noexcept {
    const auto self = shared_from_this();
    const HandlerAllocator allocator(std::shared_ptr<RunnerMemory>(self, &runnerMemory));
    asio::post(loop, asio::bind_allocator(allocator, Runner(self)));
}

void Strand::State::drop() noexcept {
    for (;;) {
        {
            const std::lock_guard lock(mutex);
            isDropped = true;
            if (first == nullptr) return;
        }
        takeFirst();
    }
}

Strand::Turn::Turn(State& state) noexcept : state_(state) {
    for (const Turn* each = current_; each != nullptr; each = each->outer_) {
        if (&each->state_ == &state) return;
    }
    held_ = state.loop.get_executor().running_in_this_thread() && state.take();
    if (held_) enter();
}

Strand::Turn::Turn(State& state, std::nullptr_t) noexcept : state_(state) {
    enter();
}

void Strand::Turn::enter() noexcept {
    taken_ = true;
    outer_ = std::exchange(current_, this);
}

Strand::Turn::~Turn() {
    if (!taken_) return;
    current_ = outer_;
    state_.giveBack();
}

Strand::Strand(asio::io_context& loop) : state_(std::make_shared<State>(loop)) {}

asio::io_context& Strand::context() const noexcept {
    return state_->loop;
}

bool Strand::running_in_this_thread() const noexcept {
    for (const Turn* each = current_; each != nullptr; each = each->outer_) {
        if (&each->state_ == state_.get()) return true;
    }
    return false;
}

void Strand::add(Item item) const {
    if (state_->add(std::move(item))) state_->postRunner();
}

}  // namespace telvora
