#pragma once

#include "Models/Link.h"

#include <QSet>
#include <QString>

// Removes tracking parameters from a link's query before it is matched.
namespace URLCleaner {

const QSet<QString> &trackingParameters();

// The link without tracking parameters, or the very same link when there is
// nothing to remove. Never fails.
Link clean(const Link &url);

} // namespace URLCleaner
