// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <deque>
#include <utility>
#include <vector>

namespace telvora::lab {

// The newest of some things, up to a number of bytes; always at least the newest one. Not thread-safe.
template <typename T>
class Newest {
  public:
    explicit Newest(size_t maxBytes) : maxBytes_(maxBytes) {}

    void add(T thing, size_t bytes) {
        ++count_;
        bytes_ += bytes;
        kept_.emplace_back(std::move(thing), bytes);
        while (bytes_ > maxBytes_ && kept_.size() > 1) {
            bytes_ -= kept_.front().second;
            kept_.pop_front();
        }
    }
    // Of all that were added.
    size_t count() const { return count_; }
    std::vector<T> kept() const {
        std::vector<T> things;
        for (const auto& [thing, bytes] : kept_)
            things.push_back(thing);
        return things;
    }

  private:
    const size_t maxBytes_;
    size_t count_ = 0;
    size_t bytes_ = 0;
    std::deque<std::pair<T, size_t>> kept_;
};

}  // namespace telvora::lab
