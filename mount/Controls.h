// From a mounted entity to the control handles of its collections.

#pragma once

#include <optional>

#include <Qel/GenericIf>
#include <QelKrell/CollectionControl>

namespace QelKrell {

// The control handle of the entity's attribute `name`, which stands beside it under the name +
// "Control"; none when the attribute is no collection that is kept in collection files.
std::optional< CollectionControl > getControl( Qel::GenericIf& entity, const Qel::String8& name );

} // namespace QelKrell
