// SPDX-License-Identifier: Apache-2.0

// The first report, in Go, over the C interface:
//
//	go build first_report.go
package main

/*
#cgo pkg-config: telvora
#include <stdlib.h>
#include <telvora/telvora.h>

void onStart(void* context, telvora_answer* answer);
static telvora_status start(telvora_session* session) {
	return telvora_session_start(session, (telvora_completion)onStart, NULL);
}
*/
import "C"

import (
	"fmt"
	"os"
	"unsafe"
)

// Set by the library's thread; read after telvora_session_wait().
var reports bool

// Shows the number of backends that report. Runs on the library's thread, and must not panic.
//
//export onStart
func onStart(_ unsafe.Pointer, answer *C.telvora_answer) {
	backends := C.telvora_value_count(C.telvora_answer_value(answer))
	if backends == 0 {
		fmt.Fprintln(os.Stderr, "No backend reports: 'telvoractl doctor --client-type 8' shows the reason.",
			C.GoString(C.telvora_answer_message(answer)))
		return
	}
	reports = true
	fmt.Println(backends, "backends report.")
}

// A dictionary of texts, numbers and booleans. The caller frees it.
func dictionary(entries map[string]any) *C.telvora_value {
	value := C.telvora_dictionary_new()
	for name, entry := range entries {
		key := C.CString(name)
		switch content := entry.(type) {
		case bool:
			C.telvora_set_bool(value, key, C.bool(content))
		case int:
			C.telvora_set_int(value, key, C.int64_t(content))
		case string:
			text := C.CString(content)
			C.telvora_set_string(value, key, text)
			C.free(unsafe.Pointer(text))
		}
		C.free(unsafe.Pointer(key))
	}
	return value
}

func main() {
	info := dictionary(map[string]any{
		C.kTelvoraSessionInfoClientType:      8, // selects the configuration
		C.kTelvoraSessionInfoSessionID:       6,
		C.kTelvoraSessionInfoRequireUserInfo: true, // else consent is not asked
	})
	user := dictionary(map[string]any{C.kTelvoraUserInfoClientName: "first-report"})
	payload := dictionary(map[string]any{"fruit": "quince"})

	session := C.telvora_session_new(nil)
	C.telvora_session_set_info(session, info, user, nil, 0, nil, nil)
	C.start(session)
	C.telvora_session_send(session, 5, 6, payload, nil, nil)
	C.telvora_session_flush(session, nil, nil)
	status := C.telvora_session_wait(session, 30000)
	fmt.Println("The report:", C.GoString(C.telvora_status_text(status)))

	for _, value := range []*C.telvora_value{info, user, payload} {
		C.telvora_value_free(value)
	}
	C.telvora_session_free(session)
	if status != C.TELVORA_OK || !reports {
		os.Exit(1)
	}
}
