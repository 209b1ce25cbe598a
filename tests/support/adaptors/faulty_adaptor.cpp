// SPDX-License-Identifier: Apache-2.0
//
// A metrics adaptor with the fault that FAULT names. For noClass, CMakeLists.txt gives the class another
// name.
#include <cstdio>
#include <future>

#include "telvora/vodex_adaptor.h"

namespace {

enum Fault {
    noClass,
    wrongVersion,
    createsNothing,
    createThrows,
    noSend,
    sendThrows,
    sendHangs,
    destroyThrows
};

void throwIf(Fault fault) {
    if (fault == FAULT) throw fault;
}

void* create(const telvora_vodex_host*) {
    throwIf(createThrows);
    static int instance;
    return FAULT == createsNothing ? nullptr : &instance;
}

void send(void*, uint16_t, uint16_t, const telvora_vodex_value*) {
    throwIf(sendThrows);
    if (FAULT != sendHangs) return;
    std::fputs("sendHangs\n", stderr);
    std::promise<void>().get_future().wait();
}

void destroy(void*) {
    throwIf(destroyThrows);
}

}  // namespace

const telvora_vodex_adaptor_class VodexAdaptor = {
    TELVORA_VODEX_ADAPTOR_VERSION + (FAULT == wrongVersion ? 1 : 0), create, FAULT == noSend ? nullptr : send,
    destroy};
