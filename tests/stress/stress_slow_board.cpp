// A board that takes 1 ms for a quote, at 50,000 quotes of 60 symbols a second, beside a plugin
// that takes all of them at once. With KeepLatest what waits for the board is bounded, what it
// shows is fresh, and the other plugin gets everything, in order. One second, or ten with --long,
// which also holds the board to an age of 50 ms.
#include "Stress.h"

#include <lxtest/TestMain.h>

#include <lxbase/BusMonitor.h>

#include <QLoggingCategory>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <thread>

using namespace lxstress;
using namespace lxtest;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int Symbols = 60;
constexpr int QuotesPerMs = 50;

struct SlowQuote
{
    int number = 0;
    Clock::time_point put;
    CountedPayload counted;
};

class Board final : public Handler
{
public:
    explicit Board(bool slow)
        : m_slow(slow)
    { }

    std::vector<double> ages; // in ms, while quotes came; the worker's until UnReg
    int count = 0;
    inline static std::atomic<bool> ended{false}; // no newer quotes come: the last ones grow old

private:
    void handle(const Call& call) override
    {
        const auto quote = call.data.value<SlowQuote>();
        ++count;
        if (!ended)
            ages.push_back(
                std::chrono::duration<double, std::milli>(Clock::now() - quote.put).count());
        int& last = m_last[call.type.toInt()];
        if (quote.number <= last || (!m_slow && quote.number != last + Symbols))
            qFatal("quote %d came after %d", quote.number, last);
        last = quote.number;
        if (m_slow)
            QThread::usleep(1000);
    }

    const bool m_slow;
    std::map<int, int> m_last = [] {
        std::map<int, int> first;
        for (int symbol = 0; symbol < Symbols; ++symbol)
            first[symbol] = symbol - Symbols;
        return first;
    }();
};

void say(const char* who, std::vector<double>& ages)
{
    std::sort(ages.begin(), ages.end());
    const auto at = [&](double part) { return ages[std::size_t(part * double(ages.size() - 1))]; };
    std::printf("%s: %zu quotes, age half within %.3f ms, 99 of 100 within %.3f ms, all %.3f ms\n",
                who, ages.size(), at(0.5), at(0.99), at(1));
}

} // namespace

Q_DECLARE_METATYPE(SlowQuote)

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules("lxbase.debug=false");
    center().setIdlePolicy(idlePolicy());
    const bool isLong = app.arguments().contains(QStringLiteral("--long"));
    const int quotes = (isLong ? 10000 : 1000) * QuotesPerMs;
    center().Start();
    InboxPolicy policy;
    policy.mode = InboxPolicy::KeepLatest;
    center().setInboxPolicy(QStringLiteral("slow"), Q, policy);
    Board slow(true);
    Board quick(false);
    slow.Reg(QStringLiteral("slow"), &slow, Q);
    quick.Reg(QStringLiteral("quick"), &quick, Q);
    for (int symbol = 0; symbol < Symbols; ++symbol) {
        slow.Sub(QStringLiteral("slow"), symbol, IMessageInterface::OperAdd);
        quick.Sub(QStringLiteral("quick"), symbol, IMessageInterface::OperAdd);
    }
    const auto begin = Clock::now();
    quint64 most = 0; // that waited for the slow one
    for (int number = 0; number < quotes; ++number) {
        if (number % QuotesPerMs == 0) {
            std::this_thread::sleep_until(begin + std::chrono::milliseconds(number / QuotesPerMs));
            most =
                std::max(most, CBusMonitor::waiting(QStringLiteral("slow"), InboxKind::Quotations));
        }
        const SlowQuote quote{number, Clock::now(), {}};
        center().PutQuotationMsg(QStringLiteral("net"),
                                 message(QString(), number % Symbols, QVariant::fromValue(quote)));
    }
    Board::ended = true;
    waitFor("every quote", [] {
        const BusStatistics bus = CBusMonitor::statistics();
        return bus.quotationList.put == bus.quotationList.handled
            && std::all_of(bus.inboxes.begin(), bus.inboxes.end(),
                           [](const InboxStatistics& inbox) {
                               return inbox.put == inbox.handled + inbox.superseded;
                           });
    });
    slow.UnReg(QStringLiteral("slow"));
    quick.UnReg(QStringLiteral("quick"));
    waitForRecords();
    if (quick.count != quotes)
        qFatal("%d of %d quotes came", quick.count, quotes);
    if (most > Symbols)
        qFatal("%llu items waited", static_cast<unsigned long long>(most));
    say("slow", slow.ages);
    say("quick", quick.ages);
    return isLong && slow.ages.back() >= 50 ? 1 : 0;
}
