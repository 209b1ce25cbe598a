// SPDX-License-Identifier: Apache-2.0
//
// The keys of the answers to kGetStatus (status_interface.h), by dictionary. com.zandor.telvorad.Status.xml
// describes their values. The names of quotas, of backends and of the outcomes of reports are keys, too; the
// rooms that define them have their names.
#pragma once

namespace telvora::status {

// The answer.
inline constexpr char kDaemon[] = "daemon";
inline constexpr char kSandbox[] = "sandbox";
inline constexpr char kSessions[] = "sessions";
inline constexpr char kUsers[] = "users";
inline constexpr char kBags[] = "bags";
inline constexpr char kTotals[] = "totals";
inline constexpr char kClientTypes[] = "clientTypes";  // also of all runs
inline constexpr char kHttpPending[] = "httpPending";
inline constexpr char kServers[] = "servers";
inline constexpr char kRefusals[] = "refusals";
inline constexpr char kBefore[] = "before";
inline constexpr char kPublicKeys[] = "publicKeys";
inline constexpr char kLink[] = "link";

// Of several parts.
inline constexpr char kUser[] = "user";
inline constexpr char kPid[] = "pid";
inline constexpr char kVersion[] = "version";
inline constexpr char kClientType[] = "clientType";
inline constexpr char kState[] = "state";
inline constexpr char kTime[] = "time";
inline constexpr char kUrl[] = "url";
inline constexpr char kHttpStatus[] = "httpStatus";
inline constexpr char kReason[] = "reason";

// The daemon.
inline constexpr char kStartTime[] = "startTime";
inline constexpr char kUptime[] = "uptime";
inline constexpr char kMemory[] = "memory";

// The sandbox.
inline constexpr char kProfile[] = "profile";
inline constexpr char kLandlockAbi[] = "landlockAbi";
inline constexpr char kFiles[] = "files";
inline constexpr char kTcpBind[] = "tcpBind";
inline constexpr char kDeviceIoctl[] = "deviceIoctl";
inline constexpr char kSignals[] = "signals";
inline constexpr char kAbstractSockets[] = "abstractSockets";
inline constexpr char kSystemCallFilter[] = "systemCallFilter";
inline constexpr char kNoNewPrivileges[] = "noNewPrivileges";
inline constexpr char kNoCapabilities[] = "noCapabilities";
inline constexpr char kEmptyBoundingSet[] = "emptyBoundingSet";
inline constexpr char kNotDumpable[] = "notDumpable";

// A session.
inline constexpr char kClient[] = "client";
inline constexpr char kGroup[] = "group";
inline constexpr char kUnit[] = "unit";
inline constexpr char kSessionID[] = "sessionID";
inline constexpr char kUuid[] = "uuid";
inline constexpr char kLevel[] = "level";
inline constexpr char kClientName[] = "clientName";
inline constexpr char kServiceName[] = "serviceName";
inline constexpr char kToken[] = "token";
inline constexpr char kHierarchyUser[] = "hierarchyUser";
inline constexpr char kAggregates[] = "aggregates";
inline constexpr char kBackends[] = "backends";
inline constexpr char kSamplingThreshold[] = "samplingThreshold";
inline constexpr char kAccounts[] = "accounts";

// An account of reports.
inline constexpr char kNone[] = "none";      // in place of a client type
inline constexpr char kOutbox[] = "outbox";  // name of an account
inline constexpr char kAccepted[] = "accepted";
inline constexpr char kInFlight[] = "inFlight";
inline constexpr char kHeld[] = "held";  // also of a quota
inline constexpr char kDelivered[] = "delivered";
inline constexpr char kKept[] = "kept";
inline constexpr char kLost[] = "lost";
inline constexpr char kDisabledBecause[] = "disabledBecause";

// A user.
inline constexpr char kQuotas[] = "quotas";
inline constexpr char kLimit[] = "limit";
inline constexpr char kRefused[] = "refused";

// A bag.
inline constexpr char kName[] = "name";
inline constexpr char kAge[] = "age";
inline constexpr char kMaxAge[] = "maxAge";
inline constexpr char kFetchTime[] = "fetchTime";
inline constexpr char kNextFetch[] = "nextFetch";
inline constexpr char kFailedStep[] = "failedStep";
inline constexpr char kFetched[] = "fetched";

// A server.
inline constexpr char kRequests[] = "requests";
inline constexpr char kFailures[] = "failures";
inline constexpr char kLast[] = "last";  // also of the refusals
inline constexpr char kLastFailure[] = "lastFailure";

// The refusals of connections.
inline constexpr char kNotEntitled[] = "notEntitled";
inline constexpr char kTooFrequent[] = "tooFrequent";
inline constexpr char kOverQuota[] = "overQuota";

// The daemon's runs before this one.
inline constexpr char kEndTime[] = "endTime";
inline constexpr char kAllRuns[] = "allRuns";
inline constexpr char kSince[] = "since";

// The link.
inline constexpr char kMetered[] = "metered";
inline constexpr char kBattery[] = "battery";

// The findings of kDiagnose.
inline constexpr char kProcess[] = "process";
inline constexpr char kGroups[] = "groups";
inline constexpr char kLabel[] = "label";
inline constexpr char kEntitlement[] = "entitlement";
inline constexpr char kGranted[] = "granted";
inline constexpr char kDirectory[] = "directory";
inline constexpr char kOthers[] = "others";
inline constexpr char kKeyDirectory[] = "keyDirectory";
inline constexpr char kFramework[] = "framework";
inline constexpr char kBagServer[] = "bagServer";
inline constexpr char kBagServerSetting[] = "bagServerSetting";
inline constexpr char kEnvironment[] = "environment";
inline constexpr char kConsent[] = "consent";
inline constexpr char kCountry[] = "country";
inline constexpr char kCountrySource[] = "countrySource";
inline constexpr char kDevice[] = "device";
inline constexpr char kSettings[] = "settings";
inline constexpr char kFaults[] = "faults";
inline constexpr char kKey[] = "key";
inline constexpr char kSection[] = "section";

// A public key.
inline constexpr char kFile[] = "file";  // also of an entitlement
inline constexpr char kFingerprint[] = "fingerprint";
inline constexpr char kProblem[] = "problem";

}  // namespace telvora::status
