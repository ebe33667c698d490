#pragma once

#include <QString>

#include <optional>

// Compares two "a.b.c.d" versions part by part from the left, numerically. nullopt when they
// cannot be compared: not four parts each, or a part the comparison reaches does not parse.
// Otherwise 1 (new is higher), 0 (equal) or -1 (old is higher).
std::optional<int> compareVersions(const QString &strVersionNew, const QString &strVersionOld);
