/* SPDX-License-Identifier: Apache-2.0
 *
 * Keys of the dictionaries that clients pass to the daemon, names of backends, and the error domain.
 */
#ifndef TELVORA_KEYS_H
#define TELVORA_KEYS_H

/* Session info */
#define kTelvoraSessionInfoSessionID "TelvoraSessionInfoSessionID"   /* number, unsigned 32-bit */
#define kTelvoraSessionInfoClientType "TelvoraSessionInfoClientType" /* number; selects the configuration */
#define kTelvoraSessionInfoClientVersion "TelvoraSessionInfoClientVersion" /* number; its low 16 bits */
/* boolean; set it to true, and give user info. Otherwise THE USER'S CONSENT IS NOT ASKED: the session's
 * reports leave the device whether or not the user shares diagnostics, and the configuration's conditions
 * (names, country, device), event lists, sampling and filters are not applied to them. */
#define kTelvoraSessionInfoRequireUserInfo "TelvoraSessionInfoRequireUserInfo"
#define kTelvoraSessionInfoBatchEvent "TelvoraSessionInfoBatchEvent"         /* boolean */
#define kTelvoraSessionInfoHierarchyToken "TelvoraSessionInfoHierarchyToken" /* dictionary, see below */

/* Hierarchy token */
#define kTelvoraHierarchyTokenLevel "TelvoraHierarchyTokenLevel"     /* number, 0 at the top */
#define kTelvoraHierarchyTokenTokenID "TelvoraHierarchyTokenTokenID" /* string */

/* User info */
#define kTelvoraUserInfoClientName "TelvoraUserInfoClientName"   /* string */
#define kTelvoraUserInfoServiceName "TelvoraUserInfoServiceName" /* string */

/* Message dictionary */
#define kTelvoraMessageParametersCategory \
    "TelvoraMessageParametersCategory"                               /* number; low 16 bits; mandatory */
#define kTelvoraMessageParametersType "TelvoraMessageParametersType" /* number; low 16 bits; mandatory */
#define kTelvoraMessageParametersPayload "TelvoraMessageParametersPayload" /* dictionary */
#define kTelvoraMessageParametersFlag \
    "TelvoraMessageParametersFlag" /* number; bit 0: realtime, bit 1: promote */

/* Names of backends: keys of a configuration, and names in reporting states */
#define kTelvoraBackendHTTPPost "httpPost"
#define kTelvoraBackendHTTPPost2 "httpPost2"
#define kTelvoraBackendDashboard "dashboard"
#define kTelvoraBackendVodex "vodex"
#define kTelvoraBackendJoulemark "joulemark"
#define kTelvoraBackendUploadServer "uploadServer"

/* Domain of every error of the daemon */
#define kTelvoraErrorDomain "TelvoraErrorDomain"

#endif
