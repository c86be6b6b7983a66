// A walk: the values below each OID of a request, fetched one answer after the other by getnext.
//
// Each OID is walked by itself, from the OID itself to the first answer that lies outside its subtree. Devices are
// strangers: a walk that a device would keep going forever ends with the values that it has, and a line says why.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "snmp/manager_operations.h"
#include "snmp/oid.h"
#include "snmp/pdu.h"

namespace kv::snmp {

/// Where a walk ends with what it has. A device that makes up values forever would fill the memory, and one that is
/// slow with each would hold up all other collection.
struct WalkBounds {
    std::int32_t values = 1'000'000;         // of one OID
    std::int64_t bytes = 128 * 1024 * 1024;  // that a request holds: its records, names and values, and their texts
    std::uint64_t milliseconds = 60 * 60 * 1000;  // of a request
};

/// Notices OIDs that run in a circle: one of them comes again. One that was seen is kept, and replaced after 1, 2, 4,
/// 8 ... others, so that in the end one inside the circle is kept for all its length.
class CircleWatch {
  public:
    /// Whether the OID is the one that is kept; notes it.
    bool IsBackAt(const std::vector<std::uint32_t>& oid);

  private:
    std::vector<std::uint32_t> kept_;
    std::int64_t untilNext_ = 1;
    std::int64_t keptFor_ = 1;
};

class Walk {
  public:
    /// The bounds count from here on. The request is the caller's and outlives the walk.
    explicit Walk(const ManagerRequest& request, const WalkBounds& bounds = {});

    /// A list of values for each OID. Null when one is malformed, when a request cannot be made and when the device
    /// falls silent: what it gave is dropped then. Once only. Throws std::bad_alloc.
    ResultVectors Run();

  private:
    enum class Step { next, finished, failed };

    /// Where the walk of one OID stands.
    struct Position {
        SubIds root = nullptr;
        std::int32_t rootLength = 0;
        std::vector<std::uint32_t> current = {};  // the OID to ask from
        std::vector<std::uint32_t> asked = {};    // the OID that the last request asked from
        SnmpPduPtr pdu = nullptr;                 // the request, once it has been made
        CircleWatch circle = {};
    };

    bool WalkOid(std::int32_t index, TkVector& values);
    Step TakeStep(Position& position, TkVector& values);
    SnmpPduPtr AskNext(Position& position, std::uint8_t& status) const;
    static Step MoveOn(Position& position, const TkVector& answer);
    Step TakeAnswer(Position& position, SnmpPdu& answer, TkVector& values);
    void TakeValues(TkVector& answer, TkVector& values);
    const char* ReachedBound(const TkVector& values) const;
    Step End(const TkVector& values, const SnmpPdu& answer) const;
    Step EndEarly(const TkVector& values, const char* reason, const SnmpPdu& answer) const;

    const ManagerRequest& request_;
    WalkBounds bounds_;
    std::string address_;  // the host's, looked up once and not for each value
    std::int64_t bytesLeft_;
    std::uint64_t endTick_;
};

}  // namespace kv::snmp
