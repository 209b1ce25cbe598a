// SPDX-License-Identifier: Apache-2.0
#include "settings.h"

#include "sandbox/privileges.h"

namespace telvora::ctl {

tl::expected<Settings, std::string> Settings::open() {
    logToStandardError();
    Settings settings;
    if (const auto became = becomeOwnerOf(settings.directories_.state); !became) {
        return tl::unexpected(became.error());
    }
    return settings;
}

int Settings::write(const std::string& domain, const std::string& key, PropertyList value) {
    if (!UserDefaults::isDomain(domain)) return fail(kBadInput, domain + ": not a preference domain");
    return done(defaults_->set(domain, key, std::move(value)), domain, {key});
}

int Settings::remove(const std::string& domain, const std::vector<std::string>& keys) {
    if (!UserDefaults::isDomain(domain)) return fail(kBadInput, domain + ": not a preference domain");
    return done(defaults_->remove(domain, keys), domain, keys);
}

int Settings::done(const tl::expected<void, std::string>& written, const std::string& domain,
                   const std::vector<std::string>& keys) {
    if (!written) {
        return fail(kNotDone, (directories_.state / "Preferences").string() + ": " + written.error());
    }
    const Dictionary administrators = defaults_->files(domain).administrator;
    int status = kDone;
    for (const std::string& key : keys) {
        if (!administrators.contains(key)) continue;
        const auto file = directories_.configuration / "Preferences" / (domain + ".plist");
        status =
            fail(kNotDone, "done, but without effect: " + file.string() + " sets \"" + key + "\" and wins");
    }
    return status;
}

}  // namespace telvora::ctl
