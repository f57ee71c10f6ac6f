#pragma once

#include <QByteArray>

// True when some object in the JSON text names one key twice. Qt 5's parser
// loses the memory of a repeated key's earlier container value, so text from
// outside (a local program, a peer's datagram) that repeats keys is refused
// before it is parsed: otherwise each such message would grow the daemon for
// good. Malformed text is judged only as far as it goes; the parser itself
// reports what is wrong with it.
bool RepeatsAKey(const QByteArray& json);
