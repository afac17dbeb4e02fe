/// \file
/// Decimal: a price with as many decimals as it was written with.
#ifndef LXCLIENT_DECIMAL_H
#define LXCLIENT_DECIMAL_H

#include <QString>

namespace lxclient {

/// A number of units of 10^-decimals. Prices are kept like this, not as floating point, so that
/// they are shown, recorded and played again exactly as they were quoted: 1.121200 stays 1.121200.
struct Decimal
{
    static constexpr int MaxDecimals = 9; ///< behind the point
    static constexpr int MaxDigits = 15;  ///< in all; a double still holds such a number exactly

    qint64 units = 0; ///< the digits without the point
    int decimals = 0; ///< 0 to MaxDecimals

    /// The nearest floating-point number.
    double toDouble() const
    {
        double scale = 1;
        for (int i = 0; i < decimals; ++i)
            scale *= 10;
        return static_cast<double>(units) / scale;
    }

    /// As it was written.
    QString toString() const
    {
        QString digits =
            QString::number(qAbs(units)).rightJustified(decimals + 1, QLatin1Char('0'));
        if (decimals > 0)
            digits.insert(digits.size() - decimals, QLatin1Char('.'));
        return units < 0 ? QLatin1Char('-') + digits : digits;
    }
};

} // namespace lxclient

#endif
