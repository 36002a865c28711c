#include "client/callmailbox.h"

#include <QtCore/QMetaMethod>
#include <QtCore/QPointer>

#include <utility>

namespace bus
{

void CallMailbox::connectTo(const QObject *context, const Function &function)
{
    const std::weak_ptr<CallMailbox> self(shared_from_this());
    // Goes with the connection, and so with the context.
    const std::shared_ptr<void> end(nullptr, [self](void *) {
        if (const std::shared_ptr<CallMailbox> mailbox = self.lock())
            mailbox->take();
    });
    const auto handOver = [self, end, alive = QPointer<const QObject>(context), function] {
        const std::shared_ptr<CallMailbox> mailbox = self.lock();
        const std::vector<TrelanCall> calls = mailbox ? mailbox->take() : std::vector<TrelanCall>();
        for (const TrelanCall &call : calls) {
            if (!alive) // deleted by the function
                return;
            function(call);
        }
    };
    connect(this, &CallMailbox::filled, context, handOver, Qt::QueuedConnection);
}

bool CallMailbox::isConnected() const
{
    return isSignalConnected(QMetaMethod::fromSignal(&CallMailbox::filled));
}

void CallMailbox::put(const TrelanCall &call)
{
    bool isFirst = false;
    {
        const std::lock_guard locker(_mutex);
        isFirst = _calls.empty();
        _calls.push_back(call);
    }
    if (isFirst)
        emit filled();
}

std::vector<TrelanCall> CallMailbox::take()
{
    const std::lock_guard locker(_mutex);
    return std::exchange(_calls, {});
}

} // namespace bus
