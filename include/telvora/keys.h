/* SPDX-License-Identifier: Apache-2.0
 *
 * The key constants that clients and the daemon share.
 */
#ifndef TELVORA_KEYS_H
#define TELVORA_KEYS_H

/* Session info */
#define kTelvoraSessionInfoSessionID "TelvoraSessionInfoSessionID"             /* number, unsigned 32-bit */
#define kTelvoraSessionInfoClientType "TelvoraSessionInfoClientType"           /* number: selects the bag */
#define kTelvoraSessionInfoClientVersion "TelvoraSessionInfoClientVersion"     /* number, low 16 bits count */
#define kTelvoraSessionInfoRequireUserInfo "TelvoraSessionInfoRequireUserInfo" /* boolean */
#define kTelvoraSessionInfoBatchEvent "TelvoraSessionInfoBatchEvent"           /* boolean */
#define kTelvoraSessionInfoHierarchyToken "TelvoraSessionInfoHierarchyToken"   /* dictionary, see below */

/* Hierarchy token */
#define kTelvoraHierarchyTokenLevel "TelvoraHierarchyTokenLevel"     /* number, 0 at the top */
#define kTelvoraHierarchyTokenTokenID "TelvoraHierarchyTokenTokenID" /* string */

/* User info */
#define kTelvoraUserInfoClientName "TelvoraUserInfoClientName"   /* string */
#define kTelvoraUserInfoServiceName "TelvoraUserInfoServiceName" /* string */

/* Message dictionary */
#define kTelvoraMessageParametersCategory \
    "TelvoraMessageParametersCategory" /* number, low 16 bits count; mandatory */
#define kTelvoraMessageParametersType \
    "TelvoraMessageParametersType" /* number, low 16 bits count; mandatory */
#define kTelvoraMessageParametersPayload "TelvoraMessageParametersPayload" /* dictionary */
#define kTelvoraMessageParametersFlag "TelvoraMessageParametersFlag"       /* number: 1 realtime, 2 promote */

/* Backend names: the bag's keys and the names in reporting states */
#define kTelvoraBackendHTTPPost "httpPost"
#define kTelvoraBackendHTTPPost2 "httpPost2"
#define kTelvoraBackendDashboard "dashboard"
#define kTelvoraBackendVodex "vodex"
#define kTelvoraBackendJoulemark "joulemark"
#define kTelvoraBackendUploadServer "uploadServer"

/* The domain of every error that the daemon returns */
#define kTelvoraErrorDomain "TelvoraErrorDomain"

#endif
