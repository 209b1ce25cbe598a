// SPDX-License-Identifier: Apache-2.0
//
// libtelvora for C++20: owning values, spans, initializer lists and function objects on top of telvora.h.
// This header has no library of its own. The rules of telvora.h for threads, failure, connections, fork and
// exit apply. Programs include this header; those below hold one subject each.
//
//     telvora::Session session;
//     session.setInfo({{kTelvoraSessionInfoClientType, 8}, {kTelvoraSessionInfoSessionID, 1},
//                      {kTelvoraSessionInfoRequireUserInfo, true}},  // else consent is not asked
//                     {{kTelvoraUserInfoClientName, "player"}});
//     session.start([](const telvora::Answer& names) { std::cout << names.value.view().size() << '\n'; });
//     session.send(5, 6, {{"fruit", "quince"}, {"weight", 0.3}});
//     session.flush([](const telvora::Answer& answer) { std::cout << answer.text().value_or("") << '\n'; });
//     if (session.wait(std::chrono::seconds(10)) != TELVORA_OK) ...
//
// Constructors and setters of values, sessions and recorders throw std::bad_alloc if memory is short, and so
// do operations; no other exception is thrown. An exception that leaves a callback ends the process.
#pragma once

#include "telvora/answer.hpp"
#include "telvora/awaitable.hpp"
#include "telvora/dictionary.hpp"
#include "telvora/message.hpp"
#include "telvora/recorder.hpp"
#include "telvora/session.hpp"
#include "telvora/value.hpp"
