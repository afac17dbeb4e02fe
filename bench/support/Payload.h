// The three payloads that are measured: a number, a small map, a plain record of 328 bytes.
#ifndef LXBENCH_PAYLOAD_H
#define LXBENCH_PAYLOAD_H

#include <QMetaType>
#include <QVariant>

class QDataStream;

namespace bench {

// A quote with ten levels on each side, as a trading client passes it around.
struct Quote
{
    struct Level
    {
        double price;
        double volume;
    };
    qint64 timeMs;
    Level bids[10];
    Level asks[10];
};
static_assert(sizeof(Quote) == 328, "the record is meant to have 328 bytes");

QDataStream& operator<<(QDataStream& stream, const Quote& quote);
QDataStream& operator>>(QDataStream& stream, Quote& quote);

// A fresh payload, as a sender makes one for each message; `number` tells messages apart.
using MakePayload = QVariant (*)(int number);

struct Payload
{
    const char* name;
    MakePayload make;
};

extern const Payload payloads[3];
inline const Payload& doublePayload = payloads[0];

// Makes Quote known to QVariant streams. Once, before any benchmark.
void registerPayloads();

} // namespace bench

Q_DECLARE_METATYPE(bench::Quote)

#endif
