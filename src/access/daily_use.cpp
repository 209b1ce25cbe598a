// SPDX-License-Identifier: Apache-2.0
#include "access/daily_use.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "plist/property_list_format.h"
#include "util/atomic_file.h"
#include "util/log.h"

namespace telvora {

namespace {

constexpr double kDay = 86400;
// Keys of the file.
constexpr char kElapsed[] = "elapsed";  // seconds of the day until it was saved, at the three next
constexpr char kTimeOfDay[] = "timeOfDay";
constexpr char kSinceBoot[] = "sinceBoot";
constexpr char kBoot[] = "boot";
constexpr char kUsers[] = "users";
constexpr char kReports[] = "reports";
constexpr char kBytes[] = "bytes";

std::optional<uid_t> userNamed(const std::string& text) {
    uid_t user = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), user);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return user;
}

uint64_t amountAt(const Dictionary& values, const char* key) {
    return static_cast<uint64_t>(std::max(values.integer(key).value_or(0), int64_t{0}));
}

}  // namespace

void DailyUse::beginDayIfDue(const Moment& now) {
    if (begun_ && now.sinceBoot < dayBegin_ + kDay) return;
    dayBegin_ = begun_ ? dayBegin_ + std::floor((now.sinceBoot - dayBegin_) / kDay) * kDay : now.sinceBoot;
    begun_ = true;
    users_.clear();
}

DailyUse::Spent DailyUse::spend(uid_t user, uint64_t bytes, const Amount& limits) {
    const Moment now = moment_();
    const MutexLock lock(lock_);
    beginDayIfDue(now);
    const auto known = users_.find(user);
    const Amount before = known != users_.end() ? known->second : Amount();
    if (before.reports >= limits.reports) return Spent::tooManyReports;
    if (bytes > limits.bytes || before.bytes > limits.bytes - bytes) return Spent::tooManyBytes;
    users_[user] = {before.reports + 1, before.bytes + bytes};
    return Spent::yes;
}

DailyUse::Amount DailyUse::of(uid_t user) {
    const Moment now = moment_();
    const MutexLock lock(lock_);
    beginDayIfDue(now);
    const auto known = users_.find(user);
    return known != users_.end() ? known->second : Amount();
}

void DailyUse::load(const std::filesystem::path& path) {
    const auto content = readPropertyListFile(path);
    const auto* saved = content ? content->getIf<Dictionary>() : nullptr;
    const Dictionary* users = saved != nullptr ? saved->dictionary(kUsers) : nullptr;
    if (users == nullptr) return;
    const Moment now = moment_();
    const std::string* boot = saved->string(kBoot);
    const bool sameBoot = boot != nullptr && *boot == now.boot;
    const double gap = sameBoot ? now.sinceBoot - saved->real(kSinceBoot).value_or(0)
                                : now.timeOfDay - saved->real(kTimeOfDay).value_or(0);
    const double elapsed = saved->real(kElapsed).value_or(kDay) + std::max(gap, 0.0);
    if (!(elapsed >= 0 && elapsed < kDay)) return;
    const MutexLock lock(lock_);
    begun_ = true;
    dayBegin_ = now.sinceBoot - elapsed;
    for (const auto& [name, value] : *users) {
        const auto user = userNamed(name);
        const auto* amount = value.getIf<Dictionary>();
        if (user && amount != nullptr)
            users_[*user] = {amountAt(*amount, kReports), amountAt(*amount, kBytes)};
    }
}

void DailyUse::save(const std::filesystem::path& path) {
    const Moment now = moment_();
    Dictionary users, saved{{kTimeOfDay, now.timeOfDay}, {kSinceBoot, now.sinceBoot}, {kBoot, now.boot}};
    {
        const MutexLock lock(lock_);
        beginDayIfDue(now);
        saved.set(kElapsed, now.sinceBoot - dayBegin_);
        for (const auto& [user, amount] : users_)
            users.set(std::to_string(user), Dictionary{{kReports, amount.reports}, {kBytes, amount.bytes}});
    }
    saved.set(kUsers, std::move(users));
    const auto document = serializePropertyList(saved, PropertyListFormat::xml);
    const auto kept = document ? replaceFile(path, *document) : tl::make_unexpected(document.error());
    if (!kept)
        TELVORA_LOG(kLogWarning, "main: can't keep the use of the daily quotas: %s", kept.error().c_str());
}

}  // namespace telvora
