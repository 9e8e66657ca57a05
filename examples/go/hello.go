// A host in Go. Build it with: go build hello.go
package main

/*
#cgo pkg-config: kelvo-c
#include <kelvo/kelvo.h>
#include <stdlib.h>
*/
import "C"

import (
	"fmt"
	"os"
	"unsafe"
)

func start(appID string) {
	id := C.CString(appID)
	defer C.free(unsafe.Pointer(id)) // kelvo_start copies the text
	options := C.kelvo_options{app_id: id}
	options.size = C.size_t(unsafe.Sizeof(options))
	C.kelvo_start(&options)
}

func log(name, json string) {
	cName, cJSON := C.CString(name), C.CString(json)
	defer C.free(unsafe.Pointer(cName))
	defer C.free(unsafe.Pointer(cJSON))
	C.kelvo_log_app_event_json(cName, cJSON, 0)
}

func main() {
	start("hello-go")
	log("Greeting", `{"language": "en", "words": 2}`)
	result := C.kelvo_flush_result{}
	result.size = C.size_t(unsafe.Sizeof(result))
	if C.kelvo_flush_and_wait(5000, &result) != C.KELVO_FLUSH_DELIVERED {
		fmt.Fprintln(os.Stderr, "not delivered:", C.GoString(&result.reason[0]))
		os.Exit(1)
	}
}
