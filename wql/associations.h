// What is associated with an object. An association is an object itself: it names those that belong together by
// properties that are references.
#pragma once

#include "wql/query.h"

namespace kv::wql {

/// Fails with invalidClass if the query names a class that does not exist, and as BindObject does.
WmiStatus CheckAssociations(const AssociationQuery& query);

/// Gives the objects that the query asks for, each once. notFound if the object that it starts from does not exist. A
/// class of associations or of results whose gather fails costs only its own objects, as in GatherRows.
WmiStatus RunAssociations(const AssociationQuery& query, const ResultSink& sink);

}  // namespace kv::wql
