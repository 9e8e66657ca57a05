// A host in Rust. Build it with: rustc hello.rs -l kelvo-c

use std::ffi::CString;
use std::os::raw::{c_char, c_int, c_void};

#[repr(C)]
struct Options {
    size: usize,
    app_id: *const c_char,
    server_base_url: *const c_char,
    ca_file: *const c_char,
    home: *const c_char,
    user_identifier: *const c_char,
    app_name: *const c_char,
    app_version: *const c_char,
    delivery: c_int,
    log_level: c_int,
    log_sink: Option<extern "C" fn(c_int, *const c_char, *mut c_void)>,
    log_context: *mut c_void,
    farewell: bool,
    consent_required: bool,
    send_ledger: bool,
    max_stored_days: u32,
    max_held_calls: u64,
    max_waiting_calls: u64,
    max_stored_bytes: u64,
    journal_bytes: u64,
}

extern "C" {
    fn kelvo_start(options: *const Options);
    fn kelvo_log_app_event_json(name: *const c_char, json: *const c_char, flags: u32);
    fn kelvo_flush_and_wait(deadline_ms: i64, result: *mut c_void) -> c_int;
}

fn start(app_id: &str) {
    let app_id = CString::new(app_id).unwrap();
    let mut options: Options = unsafe { std::mem::zeroed() }; // 0 is each default
    options.size = std::mem::size_of::<Options>();
    options.app_id = app_id.as_ptr();
    unsafe { kelvo_start(&options) } // copies the texts
}

fn log(name: &str, json: &str) {
    let (name, json) = (CString::new(name).unwrap(), CString::new(json).unwrap());
    unsafe { kelvo_log_app_event_json(name.as_ptr(), json.as_ptr(), 0) }
}

fn main() {
    start("hello-rust");
    log("Greeting", r#"{"language": "en", "words": 2}"#);
    let outcome = unsafe { kelvo_flush_and_wait(5000, std::ptr::null_mut()) };
    std::process::exit(if outcome == 0 { 0 } else { 1 }) // 0 is KELVO_FLUSH_DELIVERED
}
