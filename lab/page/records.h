// Records as a list, newest first, and one record with its values.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "lab/page/scope.h"
#include "lab/page/table.h"
#include "lab/store/history.h"

namespace kv::lab {

/// A record larger than this is shown in part, as text.
inline constexpr std::size_t maxShownBytes = std::size_t{256} << 10;

Table RecordTable(const std::vector<HistoryRecord>& records);

/// A row of the table as a JSON object, with "json", whether the record's text is JSON, and "values": that document, or
/// else the text.
std::string RecordJson(const HistoryRecord& record, const RecordText& content);

/// { "records": [ each by RecordJson ] }. It ends after the record that brings it to maxDocumentBytes of text.
std::string RecordsDocument(Store& store, const std::vector<HistoryRecord>& records);
inline constexpr std::size_t maxDocumentBytes = std::size_t{16} << 20;

/// A page of the list, with a way to the older ones when there may be some: a full page has `full` records.
void AddRecords(std::string& html, const std::vector<HistoryRecord>& records, const Scope& scope, std::size_t full);

/// "1795556400000-17": where the page after these records begins, and back; BadRequest when it cannot be read.
std::string PlaceText(const HistoryRecord& last);
HistoryPlace PlaceOf(const ServletRequest& request);

/// Its numbers lead to their plots, if these reach back to it from now.
void AddWholeRecord(std::string& html, const WholeRecord& whole, std::int64_t now);

}  // namespace kv::lab
