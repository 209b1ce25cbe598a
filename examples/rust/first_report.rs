// SPDX-License-Identifier: Apache-2.0
//
// The first report, in Rust, over the C interface without a crate:
//
//     rustc first_report.rs -l telvora
use std::ffi::{CStr, CString};
use std::os::raw::{c_char, c_int, c_void};
use std::process::ExitCode;
use std::ptr;
use std::sync::atomic::{AtomicBool, Ordering};

// Types that only the library knows.
#[repr(C)]
struct Session([u8; 0]);
#[repr(C)]
struct Value([u8; 0]);
#[repr(C)]
struct Answer([u8; 0]);
type Completion = Option<extern "C" fn(*mut c_void, *const Answer)>;

// The part of telvora.h that this program uses. A status is a C enumeration: 0 is TELVORA_OK.
extern "C" {
    fn telvora_session_new(options: *const c_void) -> *mut Session;
    fn telvora_session_free(session: *mut Session);
    fn telvora_session_set_info(
        session: *mut Session, info: *const Value, user: *const Value,
        frameworks: *const *const c_char, count: usize, done: Completion, context: *mut c_void,
    ) -> c_int;
    fn telvora_session_start(session: *mut Session, done: Completion, context: *mut c_void) -> c_int;
    fn telvora_session_send(
        session: *mut Session, category: u16, kind: u16, payload: *const Value,
        done: Completion, context: *mut c_void,
    ) -> c_int;
    fn telvora_session_flush(session: *mut Session, done: Completion, context: *mut c_void) -> c_int;
    fn telvora_session_wait(session: *mut Session, milliseconds: i64) -> c_int;
    fn telvora_dictionary_new() -> *mut Value;
    fn telvora_value_free(value: *mut Value);
    fn telvora_set_bool(value: *mut Value, key: *const c_char, content: bool) -> c_int;
    fn telvora_set_int(value: *mut Value, key: *const c_char, content: i64) -> c_int;
    fn telvora_set_string(value: *mut Value, key: *const c_char, content: *const c_char) -> c_int;
    fn telvora_value_count(value: *const Value) -> usize;
    fn telvora_answer_message(answer: *const Answer) -> *const c_char;
    fn telvora_answer_value(answer: *const Answer) -> *const Value;
    fn telvora_status_text(status: c_int) -> *const c_char;
}

// A dictionary, which ends with its owner.
struct Dictionary(*mut Value);

impl Dictionary {
    fn new() -> Self {
        Dictionary(unsafe { telvora_dictionary_new() })
    }
    fn int(self, key: &str, content: i64) -> Self {
        unsafe { telvora_set_int(self.0, text(key).as_ptr(), content) };
        self
    }
    fn bool(self, key: &str, content: bool) -> Self {
        unsafe { telvora_set_bool(self.0, text(key).as_ptr(), content) };
        self
    }
    fn string(self, key: &str, content: &str) -> Self {
        unsafe { telvora_set_string(self.0, text(key).as_ptr(), text(content).as_ptr()) };
        self
    }
}

impl Drop for Dictionary {
    fn drop(&mut self) {
        unsafe { telvora_value_free(self.0) }
    }
}

fn text(content: &str) -> CString {
    CString::new(content).expect("a text without a zero byte")
}

// Set by the library's thread, before telvora_session_wait() returns.
static REPORTS: AtomicBool = AtomicBool::new(false);

// Shows the number of backends that report. Runs on the library's thread, and must not panic.
extern "C" fn on_start(_context: *mut c_void, answer: *const Answer) {
    let backends = unsafe { telvora_answer_value(answer) };
    if backends.is_null() || unsafe { telvora_value_count(backends) } == 0 {
        let message = unsafe { CStr::from_ptr(telvora_answer_message(answer)) };
        eprintln!(
            "No backend reports: 'telvoractl doctor --client-type 8' shows the reason. {}",
            message.to_string_lossy()
        );
    } else {
        REPORTS.store(true, Ordering::SeqCst);
        println!("{} backends report.", unsafe { telvora_value_count(backends) });
    }
}

fn main() -> ExitCode {
    let info = Dictionary::new()
        .int("TelvoraSessionInfoClientType", 8) // selects the configuration
        .int("TelvoraSessionInfoSessionID", 5)
        .bool("TelvoraSessionInfoRequireUserInfo", true); // else consent is not asked
    let user = Dictionary::new().string("TelvoraUserInfoClientName", "first-report");
    let payload = Dictionary::new().string("fruit", "quince");
    let none = ptr::null_mut();
    let status = unsafe {
        let session = telvora_session_new(ptr::null());
        telvora_session_set_info(session, info.0, user.0, ptr::null(), 0, None, none);
        telvora_session_start(session, Some(on_start), none);
        telvora_session_send(session, 5, 6, payload.0, None, none);
        telvora_session_flush(session, None, none);
        let status = telvora_session_wait(session, 30000);
        telvora_session_free(session);
        println!("The report: {}", CStr::from_ptr(telvora_status_text(status)).to_string_lossy());
        status
    };
    if status == 0 && REPORTS.load(Ordering::SeqCst) { ExitCode::SUCCESS } else { ExitCode::FAILURE }
}
