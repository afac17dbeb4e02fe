// What lxobserve makes of traces that are put together by hand.
#include <lxbase/BusTrace.h>
#include <lxobserve/TraceFormats.h>
#include <lxobserve/Way.h>

#include <QBuffer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QtTest>

using lxobserve::Hop;

namespace {

// Texts are given as they are; times are microseconds.
class Scene
{
public:
    Scene& thread(const QString& name, quint64 number)
    {
        m_trace.threads.append({name, number, {}});
        return *this;
    }

    Scene& add(TraceKind kind, qint64 time, qint64 duration, quint64 item, const QString& source,
               const QString& destination, const QString& traceId = {}, PutPath path = PutPath::Put)
    {
        TraceRecord record;
        record.kind = kind;
        record.timeNs = 1000 * time;
        record.durationNs = 1000 * duration;
        record.item = item;
        record.type = text("7");
        record.source = text(source);
        record.destination = text(destination);
        record.traceId = text(traceId);
        record.path = path;
        m_trace.threads.last().records.append(record);
        return *this;
    }

    Scene& put(qint64 time, qint64 duration, const QString& source, const QString& traceId = {})
    {
        return add(TraceKind::Put, time, duration, 0, source, {}, traceId);
    }
    Scene& append(qint64 time, quint64 item, const QString& receiver)
    {
        return add(TraceKind::Append, time, 0, item, {}, receiver);
    }
    Scene& handler(qint64 time, quint64 item, const QString& receiver)
    {
        return add(TraceKind::HandlerBegin, time, 0, item, "A", receiver);
    }
    Scene& handlerEnd(qint64 time, quint64 item, const QString& receiver)
    {
        return add(TraceKind::HandlerEnd, time, 0, item, {}, receiver);
    }

    BusTrace trace(quint64 overwritten = 0)
    {
        m_trace.overwritten = overwritten;
        return m_trace;
    }

private:
    quint32 text(const QString& words)
    {
        if (!m_trace.texts.contains(words))
            m_trace.texts.append(words);
        return static_cast<quint32>(m_trace.texts.indexOf(words));
    }

    BusTrace m_trace{{}, {QString()}, 0, 0, 0};
};

// A puts to B and C; B answers to A, under no ID. Item 1 is used for both.
Scene conversation()
{
    return Scene()
        .thread("A_thread", 10)
        .put(0, 10, "A", "id-1")
        .append(2, 1, "B")
        .append(4, 2, "C")
        .handler(50, 1, "A")
        .handlerEnd(55, 1, "A")
        .thread("B_thread", 11)
        .add(TraceKind::BatchBegin, 19, 0, 0, {}, "B")
        .handler(20, 1, "B")
        .put(22, 3, "B")
        .append(23, 3, "A") // overtaken by item 1: never handled
        .put(26, 1, "B", "id-2")
        .handlerEnd(30, 1, "B")
        .put(32, 4, "B")
        .append(34, 1, "A")
        .add(TraceKind::BatchEnd, 40, 0, 0, {}, "B")
        .thread("C_thread", 10) // the number of A's, which the system gave again
        .handlerEnd(1, 9, "C")  // its beginning was overwritten
        .handler(6, 2, "C")     // still runs
        .add(TraceKind::Lost, 8, 0, 0, "C", "D", "id-1");
}

QJsonArray eventsOf(const BusTrace& trace)
{
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    if (!lxobserve::writeChromeJson(trace, buffer))
        return {};
    return QJsonDocument::fromJson(buffer.data()).object()["traceEvents"].toArray();
}

// "RecvMsg 20+10", of the slices on a track.
QStringList slicesOf(const QJsonArray& events, int tid)
{
    QStringList slices;
    for (const QJsonValue event : events) {
        if (event["ph"] == "X" && event["tid"] == tid) {
            slices.append(QString("%1 %2+%3")
                              .arg(event["name"].toString())
                              .arg(event["ts"].toDouble())
                              .arg(event["dur"].toDouble()));
        }
    }
    return slices;
}

// "10@2>11@20", of each arrow.
QStringList arrowsOf(const QJsonArray& events)
{
    QMap<int, QString> ends[2];
    for (const QJsonValue event : events) {
        const QString phase = event["ph"].toString();
        if (phase == "s" || phase == "f") {
            ends[phase == "f"][event["id"].toInt()] +=
                QString("%1@%2").arg(event["tid"].toInt()).arg(event["ts"].toDouble());
        }
    }
    QStringList arrows;
    for (auto end = ends[0].constBegin(); end != ends[0].constEnd(); ++end)
        arrows.append(*end + '>' + ends[1].take(end.key()));
    for (const QString& end : ends[1])
        arrows.append('>' + end);
    arrows.sort();
    return arrows;
}

QStringList textsOf(const QVector<Hop>& way)
{
    QStringList hops;
    for (const Hop& hop : way) {
        hops.append(QString("%1 %2 %3 %4 %5+%6 after %7 from %8%9")
                        .arg(hop.thread.left(1), hop.operation, hop.plugin, hop.peer)
                        .arg(hop.startNs / 1000)
                        .arg(hop.durationNs / 1000)
                        .arg(hop.waitNs < 0 ? -1 : hop.waitNs / 1000)
                        .arg(hop.cause)
                        .arg(hop.finished ? "" : " unfinished"));
    }
    return hops;
}

} // namespace

class tst_lxobserve : public QObject
{
    Q_OBJECT
private slots:
    void slicesNestAndArrowsHaveBothEnds()
    {
        const QJsonArray events = eventsOf(conversation().trace());
        QCOMPARE(slicesOf(events, 10), QStringList({"Put 0+10", "RecvMsg 50+5"}));
        QCOMPARE(slicesOf(events, 11),
                 QStringList({"Batch 19+21", "RecvMsg 20+10", "Put 22+3", "Put 26+1", "Put 32+4"}));
        QCOMPARE(slicesOf(events, 10 + (1 << 22)), QStringList("RecvMsg 6+49")); // to the end
        QCOMPARE(arrowsOf(events), QStringList({"10@2>11@20", "10@4>4194314@6", "11@34>10@50"}));
        QMap<int, double> last;
        for (const QJsonValue event : events) {
            if (event["tid"].isUndefined() || event["ts"].isUndefined())
                continue;
            double& time = last[event["tid"].toInt()];
            QVERIFY(event["ts"].toDouble() >= time);
            time = event["ts"].toDouble();
        }
    }

    void anAddressThatLostItsHandlerMakesNoArrowToTheNextOne()
    {
        Scene scene;
        scene.thread("A", 1).put(0, 5, "A").append(1, 1, "B").put(20, 5, "A").append(21, 2, "B");
        scene.thread("B", 2).handler(15, 1, "B").handlerEnd(16, 1, "B").handler(30, 2, "B");
        QCOMPARE(arrowsOf(eventsOf(scene.trace())), QStringList({"1@1>2@15", "1@21>2@30"}));
        QCOMPARE(arrowsOf(eventsOf(scene.trace(1))), QStringList("1@21>2@30"));
    }

    void textsAreEscaped()
    {
        const QString name = QString::fromUtf8("a\"b\\c\n\x01 \u00e9");
        const QJsonArray events = eventsOf(Scene().thread(name, 1).put(0, 1, name).trace());
        QCOMPARE(events[1]["args"]["name"].toString(), name);
        QCOMPARE(events[2]["args"]["source"].toString(), name);
    }

    void theProtobufIsWellFormedAndHasTheSameArrows()
    {
        if (QString(PROTOC).isEmpty())
            QSKIP("built without protoc");
        QBuffer buffer;
        buffer.open(QIODevice::WriteOnly);
        QVERIFY(lxobserve::writePerfetto(conversation().trace(), buffer));
        QProcess protoc;
        protoc.start(PROTOC, {"--decode_raw"});
        protoc.write(buffer.data());
        protoc.closeWriteChannel();
        QVERIFY(protoc.waitForFinished(60000));
        const QString text = QString::fromUtf8(protoc.readAllStandardOutput());
        QVERIFY2(protoc.exitCode() == 0, protoc.readAllStandardError().constData());
        const auto count = [&](const char* line) {
            return text.count(QRegularExpression(line, QRegularExpression::MultilineOption));
        };
        QCOMPARE(count("^    9: 1$"), 8); // slices begin
        QCOMPARE(count("^    9: 2$"), 8); // and end
        QCOMPARE(count("^    9: 3$"), 1);
        for (int id = 1; id <= 3; ++id) {
            QCOMPARE(count(qPrintable(QString("^    47: 0x0*%1$").arg(id))), 1);
            QCOMPARE(count(qPrintable(QString("^    48: 0x0*%1$").arg(id))), 1);
        }
        QCOMPARE(count("^    47: "), 3);
        QCOMPARE(count("\"id-1\""), 1); // once, and then by its number
    }

    void aWayGoesFromThePutOverHandlersToWhatTheyPut()
    {
        QCOMPARE(
            textsOf(lxobserve::wayOf(conversation().trace(), "id-1")),
            QStringList({"A Put A  0+10 after -1 from -1",
                         "C RecvMsg C A 6+49 after 2 from 0 unfinished",
                         "C unknown_destination C D 8+0 after -1 from 1",
                         "B RecvMsg B A 20+10 after 18 from 0", "B Put B  22+3 after -1 from 3"}));
        QCOMPARE(lxobserve::wayOf(conversation().trace(), "id-2").size(), 1);
        QVERIFY(lxobserve::wayOf(conversation().trace(), "id").isEmpty());
        QVERIFY(lxobserve::wayOf(conversation().trace(), {}).isEmpty());
    }

    void whatComesFromTheNetworkIsRouted()
    {
        Scene scene;
        scene.thread("Net", 1).add(TraceKind::Put, 0, 5, 77, "N", {}, "x", PutPath::PutNetMsg);
        scene.thread("Dispatch", 2)
            .add(TraceKind::Route, 8, 4, 77, "N", {}, "x", PutPath::PutNetMsg)
            .append(9, 77, "B"); // the same address as the message's, at another time
        scene.thread("B", 3).handler(12, 77, "B").handlerEnd(14, 77, "B");
        QCOMPARE(arrowsOf(eventsOf(scene.trace())), QStringList({"1@0>2@8", "2@9>3@12"}));
        QCOMPARE(
            textsOf(lxobserve::wayOf(scene.trace(), "x")),
            QStringList({"N PutNetMsg N  0+5 after -1 from -1", "D Route N  8+4 after 8 from 0",
                         "B RecvMsg B A 12+2 after 3 from 1"}));
    }

    void aDeviceThatRefusesIsReported()
    {
        for (const auto write : {lxobserve::writePerfetto, lxobserve::writeChromeJson}) {
            QFile full("/dev/full");
            QVERIFY(full.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
            QString error;
            QVERIFY(!write(conversation().trace(), full, &error));
            QCOMPARE(error, full.errorString());
        }
    }
};

QTEST_GUILESS_MAIN(tst_lxobserve)
#include "tst_lxobserve.moc"
