// SPDX-License-Identifier: Apache-2.0
#include "protocol/client_session_wire.h"

namespace telvora {

namespace {

constexpr char kDictionary[] = "a{sv}";
constexpr char kOptionalDictionary[] = "aa{sv}";
constexpr char kArray[] = "av";
constexpr char kString[] = "s";
constexpr char kStrings[] = "as";
constexpr char kOptionalString[] = "as";
constexpr char kOptionalStrings[] = "aas";
constexpr char kOptionalError[] = "a(sis)";
constexpr char kBoolean[] = "b";
constexpr char kU16[] = "q";
constexpr char kDouble[] = "d";
constexpr char kFile[] = "h";

}  // namespace

// None of these is ever destroyed: a client's thread may use them to the very end of its process.

const BusInterface& clientSessionBusInterface() {
    static const BusInterface& interface = *new BusInterface(
        "com.zandor.telvorad.ClientSessionInterface",
        {
            {"SetSessionInfo",
             {{"sessionInfo", kDictionary},
              {"userInfo", kOptionalDictionary},
              {"frameworksToCheck", kStrings},
              {"hasAggregationBlock", kBoolean}},
             {}},
            {"StartConfig", {}, {{"reportingStates", kOptionalStrings}}},
            {"FetchStates", {{"userInfo", kOptionalDictionary}}, {{"reportingStates", kOptionalStrings}}},
            {"FetchDisplayURL", {}, {{"displayURL", kString}}},
            {"SendMessageWithCategory",
             {{"category", kU16}, {"type", kU16}, {"payload", kOptionalDictionary}},
             {{"answer", kOptionalString}}},
            {"SendMessageWithDictionary", {{"message", kDictionary}}, {{"answer", kOptionalString}}},
            {"FlushMessages", {}, {{"answer", kOptionalString}, {"error", kOptionalError}}},
            {"FinishSession", {}, {{"answer", kOptionalString}}},
            {"UploadFileAtPath",
             {{"fileURL", kString}, {"extensionToken", kString}},
             {{"uploaded", kBoolean}}},
            {"UploadLogData", {{"records", kArray}}, {{"uploaded", kBoolean}, {"error", kOptionalError}}},
            {"SendMessageWithSessionInfo",
             {{"sessionInfo", kDictionary},
              {"userInfo", kOptionalDictionary},
              {"category", kU16},
              {"type", kU16},
              {"payload", kOptionalDictionary}},
             {{"outcome", kString}}},
        });
    return interface;
}

const BusInterface& sandboxExtensionBusInterface() {
    static const BusInterface& interface = *new BusInterface(
        "com.zandor.telvorad.SandboxExtension",
        {{"IssueFileExtension", {{"path", kString}, {"file", kFile}}, {{"extensionToken", kString}}}});
    return interface;
}

const BusInterface& clientSessionReplyBusInterface() {
    static const BusInterface& interface = *new BusInterface(
        "com.zandor.telvorad.ClientSessionReplyInterface", {{"SendMessageToClient",
                                                             {{"sessionInfo", kOptionalDictionary},
                                                              {"timestamp", kDouble},
                                                              {"category", kU16},
                                                              {"type", kU16},
                                                              {"payload", kOptionalDictionary}},
                                                             {}}});
    return interface;
}

}  // namespace telvora
