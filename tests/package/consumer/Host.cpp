// A host that loads each plugin named on its command line, asks it once, compares the answer, and
// unloads it again.
#include <lxbase/MessageCenter.h>
#include <lxbase/MessageCommonManage.h>
#include <lxbase/MessageInterface.h>
#include <lxmsg/MessageCommon.h>

#include <QCoreApplication>
#include <QPluginLoader>
#include <QSemaphore>

#include <cstdio>

class Asker final : public IMessageInterface
{
public:
    Asker() { Reg(m_id, this, MessageThread); }
    ~Asker() override { UnReg(m_id); }

    QVariant ask(const QVariant& question)
    {
        Put(m_id, new CMessageCommon(m_id, QStringLiteral("Echo"), 1, question));
        return m_answered.tryAcquire(1, 30000) ? m_answer : QVariant();
    }

    void RecvMsg(QString, QVariant, QVariant data) override
    {
        m_answer = data;
        m_answered.release();
    }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

private:
    const QString m_id = QStringLiteral("Asker");
    QSemaphore m_answered;
    QVariant m_answer; // read after m_answered has been acquired
};

int main(int argc, char* argv[])
{
    const QCoreApplication app(argc, argv);
    const QStringList libraries = app.arguments().mid(1);
    // the one center and the one pool, seen from the host and from the plugin
    const QVariantList expected{
        QStringLiteral("question"),
        qulonglong(reinterpret_cast<quintptr>(CMessageCenter::GetInstance())),
        qulonglong(reinterpret_cast<quintptr>(CMessageCommonManage::GetInstance()))};

    Asker asker;
    for (const QString& library : libraries) {
        QPluginLoader loader(library); // local symbol scope is its default
        const bool loaded = qobject_cast<IMessageInterface*>(loader.instance());
        const QString reason = loader.errorString();
        const bool answered = loaded && asker.ask(expected.first()).toList() == expected;
        const bool unloaded = loader.unload();
        if (!answered || !unloaded) {
            std::fprintf(stderr, "%s: loaded %d, answered rightly %d, unloaded %d; %s\n",
                         qPrintable(library), loaded, answered, unloaded, qPrintable(reason));
            return 1;
        }
    }
    return libraries.isEmpty() ? 2 : 0;
}
