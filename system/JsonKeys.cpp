#include "system/JsonKeys.h"

#include <QSet>
#include <QString>
#include <QVector>

#include <cstring>

namespace
{
int HexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The string starting after the quote at position i, with its escapes undone
// as the parser undoes them, so that "a" and "\u0061" are one key. Leaves i
// on the closing quote (or the end).
QString ReadString(const QByteArray& json, int& i)
{
    QString text;
    QByteArray run;
    auto flush = [&] {
        text += QString::fromUtf8(run);
        run.clear();
    };
    for (++i; i < json.size() && json.at(i) != '"'; ++i) {
        if (json.at(i) != '\\') {
            run += json.at(i);
            continue;
        }
        if (++i >= json.size())
            break;
        const char escaped = json.at(i);
        if (escaped != 'u') {
            static const char from[] = "bfnrt", to[] = "\b\f\n\r\t";
            const char* found = std::strchr(from, escaped);
            run += found && escaped ? to[found - from] : escaped;
            continue;
        }
        int unit = 0;
        for (int k = 0; k < 4 && i + 1 < json.size() && HexValue(json.at(i + 1)) >= 0; ++k)
            unit = unit * 16 + HexValue(json.at(++i));
        flush();
        text += QChar(ushort(unit));
    }
    flush();
    return text;
}
} // namespace

bool RepeatsAKey(const QByteArray& json)
{
    // One entry per open container: the keys seen so far for an object,
    // nothing for an array (isObject false).
    struct tContainer
    {
        bool isObject;
        QSet<QString> keys;
    };
    QVector<tContainer> open;
    bool expectKey = false;
    for (int i = 0; i < json.size(); ++i) {
        switch (json.at(i)) {
        case '{':
            open.append(tContainer{true, {}});
            expectKey = true;
            break;
        case '[':
            open.append(tContainer{false, {}});
            expectKey = false;
            break;
        case '}':
        case ']':
            if (!open.isEmpty())
                open.removeLast();
            expectKey = false;
            break;
        case ',':
            expectKey = !open.isEmpty() && open.last().isObject;
            break;
        case '"': {
            const QString text = ReadString(json, i);
            if (expectKey && !open.isEmpty() && open.last().isObject) {
                QSet<QString>& keys = open.last().keys;
                if (keys.contains(text))
                    return true;
                keys.insert(text);
            }
            expectKey = false;
            break;
        }
        default:
            break;
        }
    }
    return false;
}
