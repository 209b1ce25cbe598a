// SPDX-License-Identifier: Apache-2.0
//
// UniqueFunction: a callable that is moved and never copied. Unlike std::function, it can hold callables that
// can't be copied, and it holds callables of up to `Capacity` bytes without an allocation.
//
// Not thread-safe; an object may be moved to another thread.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace telvora {

template <typename Signature, size_t Capacity = 32>
class UniqueFunction;

template <typename Result, typename... Arguments, size_t Capacity>
class UniqueFunction<Result(Arguments...), Capacity> {
  public:
    UniqueFunction() = default;
    UniqueFunction(std::nullptr_t) {}
    // Empty if `callable` is an empty function or a null pointer.
    template <typename Callable>
    requires(!std::is_same_v<std::decay_t<Callable>, UniqueFunction> &&
             std::is_invocable_r_v<Result, std::decay_t<Callable>&, Arguments...>)
        UniqueFunction(Callable&& callable) {
        using Held = std::decay_t<Callable>;
        if constexpr (requires { callable == nullptr; }) {
            if (callable == nullptr) return;
        }
        if constexpr (kInPlace<Held>) {
            new (storage_) Held(std::forward<Callable>(callable));
            operations_ = &kOperations<Held>;
        } else {
            auto held = [pointer = std::make_unique<Held>(std::forward<Callable>(callable))](
                            Arguments... arguments) mutable -> Result {
                return (*pointer)(std::forward<Arguments>(arguments)...);
            };
            new (storage_) decltype(held)(std::move(held));
            operations_ = &kOperations<decltype(held)>;
        }
    }
    UniqueFunction(UniqueFunction&& other) noexcept { take(other); }
    UniqueFunction& operator=(UniqueFunction&& other) noexcept {
        if (this == &other) return *this;
        reset();
        take(other);
        return *this;
    }
    ~UniqueFunction() { reset(); }

    explicit operator bool() const { return operations_ != nullptr; }
    // Must not be empty.
    Result operator()(Arguments... arguments) {
        return operations_->call(storage_, std::forward<Arguments>(arguments)...);
    }

  private:
    struct Operations {
        Result (*call)(void* held, Arguments&&... arguments);
        void (*moveTo)(void* held, void* target);  // and destroys the original
        void (*destroy)(void* held);
    };

    template <typename Held>
    static constexpr bool kInPlace =
        sizeof(Held) <= Capacity &&
        alignof(Held) <= alignof(void*) && std::is_nothrow_move_constructible_v<Held>;
    template <typename Held>
    static constexpr Operations kOperations{
        [](void* held, Arguments&&... arguments) -> Result {
            return (*static_cast<Held*>(held))(std::forward<Arguments>(arguments)...);
        },
        [](void* held, void* target) {
            new (target) Held(std::move(*static_cast<Held*>(held)));
            static_cast<Held*>(held)->~Held();
        },
        [](void* held) { static_cast<Held*>(held)->~Held(); },
    };

    void take(UniqueFunction& other) {
        operations_ = std::exchange(other.operations_, nullptr);
        if (operations_ != nullptr) operations_->moveTo(other.storage_, storage_);
    }
    void reset() {
        if (const Operations* operations = std::exchange(operations_, nullptr)) operations->destroy(storage_);
    }

    const Operations* operations_ = nullptr;
    alignas(void*) std::byte storage_[Capacity];
};

}  // namespace telvora
