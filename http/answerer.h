// Who has given an answer where a proxy stands between.
#pragma once

namespace kv {

enum class Answerer {
    server,
    proxy,   // which led to no server
    either,  // of a plain answer through a proxy nobody can tell
};

}  // namespace kv
