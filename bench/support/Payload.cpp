#include "Payload.h"

#include <QDataStream>
#include <QString>
#include <QVariantMap>

namespace bench {

namespace {

QVariant makeDouble(int number)
{
    return QVariant(static_cast<double>(number));
}

QVariant makeMap(int number)
{
    const auto price = static_cast<double>(number);
    return QVariantMap{{QStringLiteral("bid"), price}, {QStringLiteral("ask"), price + 0.5}};
}

QVariant makeQuote(int number)
{
    Quote quote{};
    quote.timeMs = number;
    return QVariant::fromValue(quote);
}

} // namespace

const Payload payloads[3] = {{"double", makeDouble}, {"map", makeMap}, {"struct", makeQuote}};

QDataStream& operator<<(QDataStream& stream, const Quote& quote)
{
    stream.writeRawData(reinterpret_cast<const char*>(&quote), sizeof quote);
    return stream;
}

QDataStream& operator>>(QDataStream& stream, Quote& quote)
{
    stream.readRawData(reinterpret_cast<char*>(&quote), sizeof quote);
    return stream;
}

void registerPayloads()
{
    qRegisterMetaType<Quote>();
    qRegisterMetaTypeStreamOperators<Quote>("bench::Quote");
}

} // namespace bench
