/// \file
/// Conflator: from any thread to an object's thread, the newest value of each key, once a frame.
#ifndef LXCLIENT_CONFLATOR_H
#define LXCLIENT_CONFLATOR_H

#include <QElapsedTimer>
#include <QHash>
#include <QMutex>
#include <QObject>
#include <QPointer>
#include <QThread>
#include <QTimer>

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

namespace lxclient {

/// The length of a frame unless something else is asked for: 30 frames a second.
constexpr std::chrono::milliseconds DefaultFrame{33};

/// Stands between handlers, which run on worker threads thousands of times a second, and a window,
/// which nobody looks at more than thirty times a second. It keeps the newest value of each key,
/// and hands those that have changed to a function on the window's thread, at most once in a frame:
///
///     Conflator<QString, Quote> m_quotes{this, [this](const auto& changed) { show(changed); }};
///
///     void onQuote(const Quote& quote) override { m_quotes.put(quote.symbol, quote); }
///
/// What comes after a quiet time is handed over at once, so that a single change waits for nothing.
/// While nothing is put, nothing runs.
///
/// Threads: put from any thread; the function always runs on the thread of the object. The object
/// stays on its thread, which has an event loop.
///
/// Life: object, conflator and those who put may end in any order. When the object has gone,
/// changes are dropped. After stop, or the end of the conflator, puts are ignored; but a put that
/// is under way when the conflator is destroyed is a mistake, as with any object.
template<class Key, class Value>
class Conflator
{
public:
    /// The newest value of each key that was put since the last time.
    using Changes = QHash<Key, Value>;

    /// `show` is called on the thread of `object`, while `object` lives, with `frame` between two
    /// calls at least. It may put, and stop the conflator. Made on any thread.
    Conflator(QObject* object, std::function<void(const Changes&)> show,
              std::chrono::milliseconds frame = DefaultFrame)
        : m_shared(std::make_shared<Shared>())
    {
        m_shared->hand = new Hand(m_shared, object, std::move(show), frame);
    }

    /// Without a last call of the function: it may be a member of what it would touch.
    ~Conflator() { end(false); }

    Q_DISABLE_COPY(Conflator)

    /// From any thread. Takes a lock for the time of a look-up; one put in a frame posts an event.
    void put(const Key& key, const Value& value)
    {
        const QMutexLocker locker(&m_shared->mutex);
        if (!m_shared->hand)
            return;
        m_shared->changes.insert(key, value);
        if (!std::exchange(m_shared->posted, true)) {
            // with the lock, since whoever deletes the hand takes it out of here first
            QMetaObject::invokeMethod(
                m_shared->hand, [hand = m_shared->hand] { hand->wake(); }, Qt::QueuedConnection);
        }
    }

    /// Hands over what is left, and nothing ever after. On the thread of the object this has
    /// happened when the call returns, and nothing of the conflator waits in the event loop any
    /// more: a plugin calls it in onShutDown. On another thread the last call comes when the
    /// object's thread gets to it. Any number of times.
    void stop() { end(true); }

private:
    class Hand;

    struct Shared
    {
        QMutex mutex;
        // guarded by mutex
        Changes changes;
        bool posted = false;  // the hand knows that there are changes
        Hand* hand = nullptr; // deleted by who takes it out of here; null: it has ended
    };

    // What lives on the thread of the object. Events that wait for it go with it.
    class Hand final : public QObject
    {
    public:
        Hand(std::shared_ptr<Shared> shared, QObject* object,
             std::function<void(const Changes&)> show, std::chrono::milliseconds frame)
            : m_shared(std::move(shared))
            , m_object(object)
            , m_show(std::move(show))
            , m_frame(frame)
            , m_timer(this)
        {
            m_timer.setSingleShot(true);
            m_timer.setTimerType(Qt::PreciseTimer);
            connect(&m_timer, &QTimer::timeout, this, [this] { flush(); });
            moveToThread(object->thread());
        }

        bool isShowing() const { return m_showing; }

        void wake()
        {
            const std::chrono::milliseconds passed(m_since.isValid() ? m_since.elapsed() : 0);
            if (!m_since.isValid() || passed >= m_frame)
                flush();
            else
                m_timer.start(m_frame - passed);
        }

        void flush()
        {
            Changes changes;
            {
                const QMutexLocker locker(&m_shared->mutex);
                changes.swap(m_shared->changes);
                m_shared->posted = false;
            }
            m_since.start();
            if (changes.isEmpty() || !m_object)
                return;
            m_showing = true;
            m_show(changes);
            m_showing = false;
        }

    private:
        const std::shared_ptr<Shared> m_shared;
        const QPointer<QObject> m_object;
        const std::function<void(const Changes&)> m_show;
        const std::chrono::milliseconds m_frame;
        QTimer m_timer;
        QElapsedTimer m_since; // the last flush
        bool m_showing = false;
    };

    void end(bool flush)
    {
        Hand* hand = nullptr;
        {
            const QMutexLocker locker(&m_shared->mutex);
            hand = std::exchange(m_shared->hand, nullptr);
        }
        if (!hand)
            return;
        const QThread* const thread = hand->thread();
        if (thread == QThread::currentThread() && !hand->isShowing()) {
            if (flush)
                hand->flush();
            delete hand;
        } else if (!thread || thread->isFinished()) {
            delete hand; // nobody is there to be shown anything
        } else {         // another thread, or the function itself has ended the conflator
            if (flush)
                QMetaObject::invokeMethod(
                    hand, [hand] { hand->flush(); }, Qt::QueuedConnection);
            hand->deleteLater();
        }
    }

    const std::shared_ptr<Shared> m_shared;
};

} // namespace lxclient

#endif
