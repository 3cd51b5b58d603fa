#pragma once
// Process-wide set-up of the libraries this library relies on (libsodium, libcurl).

namespace quill::rill {

// Initialises libsodium and libcurl once per process; later calls only return the first outcome.
// Thread-safe. The S3 client calls it itself, so calling it at start-up only moves the cost there.
// Returns false when either library could not be initialised.
bool initialize();

}  // namespace quill::rill
