// The metadata of plugins: what is declared wrong is refused, and so is what is set wrong.
#include "MetaData.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

class tst_MetaData : public QObject
{
    Q_OBJECT
private slots:
    void aSettingIsTakenOrRefusedInWords()
    {
        // fields that the declaration has besides or instead of a good one's, what the user sets,
        // and what is said of either; nothing: the value is taken
        const std::tuple<QByteArray, QString, QString> cases[] = {
            {R"("name": "")", "1", "no \"name\""},
            {R"("name": "a=b")", "1", "one with a ="},
            {R"("name": "symbols")", "1", "a setting of the host"},
            {R"("type": "number")", "1", "none of int, double, string, bool"},
            {R"("description": "")", "1", "no \"description\""},
            {R"("maximum": 3)", "1", "\"maximum\" is none of name"},
            {R"("default": 1.5)", "1", "\"default\": a whole number is expected"},
            {R"("min": 2)", "3", "\"default\": a whole number from 2 is expected"},
            {R"("min": 0.5)", "1", "\"min\""},
            {R"("type": "bool", "default": true, "max": 1)", "true", "\"max\""},
            {R"("min": -2, "max": 8)", "9", "a whole number from -2 to 8 is expected"},
            {R"("type": "int")", "9007199254740993", ""}, // more than a double holds
            {R"("type": "double", "max": 2.5)", "0.25", ""},
            {R"("type": "double", "max": 2.5)", "nan", "a number to 2.5 is expected"},
            {R"("type": "bool", "default": false)", "true", ""},
            {R"("type": "bool", "default": false)", "yes", "true or false is expected"},
            {R"("type": "string", "default": "")", "any text", ""},
        };
        for (const auto& [fields, text, said] : cases) {
            const QByteArray json =
                R"({"id": "p", "settings": [{"name": "a", "type": "int", "default": 1,)"
                R"("description": "b",)"
                + fields + "}]}"; // the later of two wins
            MetaData read;
            lxclient::Error error = MetaData::read(QJsonDocument::fromJson(json).object(), read);
            QVariant value;
            if (!error)
                error = read.settings[0].parse(text, value);
            QVERIFY2(said.isEmpty() ? !error : error.words().contains(said),
                     fields + ' ' + text.toUtf8() + " -> " + error.words().toUtf8());
            QCOMPARE(value.toString(), said.isEmpty() ? text : QString());
        }
    }
};

QTEST_APPLESS_MAIN(tst_MetaData)
#include "tst_MetaData.moc"
