// SPDX-License-Identifier: Apache-2.0
#include "config/client_type.h"

#include <array>

namespace telvora {

namespace {

using enum SessionNumbering;
constexpr bool kMetricsAdaptor = true;

// In the order of the numbers.
constexpr std::array<ClientTypeFacts, kLastClientType + 1> kClientTypes = {{
    {ClientType::sm, "SM", ""},
    {ClientType::cn, "CN", ""},
    {ClientType::nat, "NAT", ""},
    {ClientType::to, "TO", ""},
    {ClientType::rs, "RS", ""},
    {ClientType::ob, "OB", "orbel"},
    {ClientType::vt, "VT", "vantor"},
    {ClientType::vc, "VC", "quillet", always, kMetricsAdaptor},
    {ClientType::tv, "TV", "dravik"},
    {ClientType::fl, "FL", "fenlow"},
    {ClientType::sg, "SG", "pellam"},
    {ClientType::lt, "LT", "quillet", onInternalBuilds, kMetricsAdaptor},
    {ClientType::kestova, "KESTOVA", "kestova"},
    {ClientType::nvcam, "NVCAM", "quillet", onInternalBuilds, kMetricsAdaptor},
    {ClientType::vtHls, "VT-HLS", "vantor"},
    {ClientType::vtCrabs, "VT-CRABS", "vantor"},
    {ClientType::tamsel, "TAMSEL", "tamsel"},
    {ClientType::corvane, "CORVANE", "corvane"},
    {ClientType::lindqvar, "LINDQVAR", "lindqvar"},
}};

constexpr bool isInOrder() {
    for (size_t i = 0; i < kClientTypes.size(); ++i) {
        if (static_cast<size_t>(kClientTypes[i].type) != i) return false;
    }
    return true;
}
static_assert(isInOrder());

}  // namespace

const ClientTypeFacts* factsOfClientType(int64_t number) {
    return number >= 0 && number <= kLastClientType ? &kClientTypes[static_cast<size_t>(number)] : nullptr;
}

std::string_view senderCodeForClientType(int64_t number) {
    const ClientTypeFacts* facts = factsOfClientType(number);
    return facts != nullptr ? facts->senderCode : std::string_view();
}

bool isSessionNumbered(int64_t number, bool isInternalBuild) {
    const ClientTypeFacts* facts = factsOfClientType(number);
    const SessionNumbering numbering = facts != nullptr ? facts->numbering : never;
    return numbering == always || (numbering == onInternalBuilds && isInternalBuild);
}

}  // namespace telvora
