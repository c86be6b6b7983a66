// How the makers of records keep the seam's promise that an operation with a result throws nothing (platform/seam.h).
#pragma once

#include <cstdint>
#include <exception>
#include <new>
#include <system_error>
#include <type_traits>
#include <utility>

#include "platform/errors.h"
#include "platform/files.h"
#include "platform/wmi_status.h"

namespace platform {

/// The results that stand for an exception.
struct GuardResults {
    std::uint32_t noMemory;  // a thread that cannot be started counts as well
    std::uint32_t otherFailure;
};
inline constexpr GuardResults systemErrorResults{.noMemory = error::notEnoughMemory,
                                                 .otherFailure = error::generalFailure};
inline constexpr GuardResults directoryErrorResults{.noMemory = directory_error::noMemory,
                                                    .otherFailure = directory_error::invalid};
inline constexpr GuardResults wmiResults{.noMemory = wmi_status::outOfMemory, .otherFailure = wmi_status::failed};

/// The operation, with every std::exception turned into a result. What a test throws to end a loop passes through, as
/// it is not one.
template <class Operation>
auto Guarded(Operation operation, GuardResults results = systemErrorResults) {
    return [operation = std::move(operation), results]<class... Arguments>(
               Arguments&&... arguments) -> std::invoke_result_t<const Operation&, Arguments...> {
        using Result = std::invoke_result_t<const Operation&, Arguments...>;
        try {
            return operation(std::forward<Arguments>(arguments)...);
        } catch (const std::bad_alloc&) {
            return static_cast<Result>(results.noMemory);
        } catch (const std::system_error& failure) {
            const bool noThread = failure.code() == std::errc::resource_unavailable_try_again;
            return static_cast<Result>(noThread ? results.noMemory : results.otherFailure);
        } catch (const std::exception&) {
            return static_cast<Result>(results.otherFailure);
        }
    };
}

}  // namespace platform
