#pragma once

#include <QString>

// A card's CID register as read from the system may carry a wrong last byte;
// this returns the 32-digit text with that byte replaced by the correct
// CRC7 (shifted left, end bit set) in lowercase. Other lengths pass through.
QString CidWithCrc(const QString& cid);
