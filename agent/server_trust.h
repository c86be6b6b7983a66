// Reads what the settings ask of the server's certificate.
#pragma once

namespace kv {

/// Fills gv_serverTrust from KVServerPinnedKey, KVServerCAFile and KVServerVerify; the file is read here and not again.
/// A setting that is there and cannot be used, or not read, becomes the refusal, with a log line: nothing is sent to a
/// server then. So it does while this runs, and when it ends early. Called before other threads read the state; may
/// throw std::bad_alloc.
void getServerTrust();

}  // namespace kv
