#include "zip/zip_result.h"

namespace kv {

const char* ZipResultText(ZipResult code) {
    switch (code) {
#define KV_ZIP_RESULT_TEXT(name, number, text) \
    case number:                               \
        return text;
        KV_ZIP_RESULTS(KV_ZIP_RESULT_TEXT)
#undef KV_ZIP_RESULT_TEXT
    }
    return "unknown zip result code";
}

}  // namespace kv
