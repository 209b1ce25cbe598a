// SPDX-License-Identifier: Apache-2.0
#include "telvora-lab/feed.h"

#include "telvora-lab/event_json.h"

namespace telvora::lab {

void Feed::add(std::string_view kind, Dictionary fields, size_t reports, std::string_view body) {
    using namespace std::chrono;
    const auto now = system_clock::now().time_since_epoch();
    fields.set("kind", std::string(kind));
    fields.set("at", int64_t{duration_cast<milliseconds>(now).count()});
    fields.set("reports", reports);
    std::string text = toJson(fields, false);
    if (!body.empty()) {
        text.back() = ',';
        text.append("\"body\":").append(body).push_back('}');
    }

    MutexLock lock(mutex_);
    bytes_ += text.size();
    records_.push_back({std::move(text), reports_, reports});
    reports_ += reports;
    while (bytes_ > maxBytes_ && records_.size() > 1) {
        bytes_ -= records_.front().text.size();
        records_.pop_front();
        ++first_;
    }
    changed_.notify_all();
}

Feed::Excerpt Feed::read(uint64_t from, size_t maxBytes, std::chrono::milliseconds wait) const {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    MutexLock lock(mutex_);
    if (from > first_ + records_.size()) from = 1;
    while (from == first_ + records_.size() && !closed_) {
        if (changed_.wait_until(mutex_, deadline) == std::cv_status::timeout) break;
    }
    Excerpt excerpt;
    excerpt.first = std::max(from, first_);
    size_t bytes = 0;
    for (size_t i = excerpt.first - first_; i < records_.size(); ++i) {
        bytes += records_[i].text.size();
        if (bytes > maxBytes && !excerpt.records.empty()) break;
        if (excerpt.records.empty()) excerpt.reportsBefore = records_[i].reportsBefore;
        excerpt.reports += records_[i].reports;
        excerpt.records.push_back(records_[i].text);
    }
    if (excerpt.records.empty()) excerpt.reportsBefore = reports_;
    return excerpt;
}

void Feed::close() {
    MutexLock lock(mutex_);
    closed_ = true;
    changed_.notify_all();
}

bool Feed::closed() const {
    MutexLock lock(mutex_);
    return closed_;
}

}  // namespace telvora::lab
