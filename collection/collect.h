// One scheduled workflow entry turned into record files: each of its records goes to the collector of its kind.
#pragma once

namespace kv {

/// Timer callback: runs the records of the workflow entry whose index in gv_sortVec the argument points to (int32). A
/// record that fails costs the others nothing.
void CollectAndSaveData(void* argument);

}  // namespace kv
