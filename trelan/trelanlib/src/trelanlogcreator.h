#pragma once

#include "trelanglobal.h"

#include "trelanmessage.h"

#include <QtCore/QByteArray>
#include <QtCore/QLoggingCategory>
#include <QtCore/QMutex>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QTime>

#include <memory>

namespace bus
{

/// The category "logger": its name is that of the log output which a controller removes when it is
/// destroyed with the log bridge installed.
TRELAN_EXPORT QLoggingCategory &LOGGER(); // NOLINT(readability-identifier-naming)

/// \brief Carries the Qt log of a process onto the bus, as commands "saveLog" to the client
/// "logger".
///
/// The application calls init() and makes humanKelLog() Qt's message handler, or an output of
/// LoggerManager. Every line then becomes a message that is handed to the receiver given to init(),
/// normally a controller's sendLogMessage(TrelanMessage). A line that repeats the one before is
/// held back, at first for the interval given, then for longer and longer, up to five minutes.
///
/// Threads: the static functions may be called from any thread; no lock is held while anything is
/// emitted. A line logged in a thread without event loop leaves its emitter behind until the end.
///
/// \code
/// bus::TrelanLogCreator::init(&controller, "2sendLogMessage(TrelanMessage)", "thermometer", 5000);
/// controller.setLogBridgeInstalled(true);
/// qInstallMessageHandler(bus::TrelanLogCreator::humanKelLog);
/// \endcode
class TRELAN_EXPORT TrelanLogCreator : public QObject
{
    Q_OBJECT

public:
    explicit TrelanLogCreator(const QString &clientName, QObject *parent = nullptr);
    ~TrelanLogCreator() override;

    /// \brief Says where log lines go.
    ///
    /// \a method is the receiver's signal ("2...") or slot ("1...") as SIGNAL() and SLOT() write
    /// it. Nothing is sent while the receiver, the method or \a clientName is missing. A \a
    /// repeatInterval, in milliseconds, of 1000 or less sends every line.
    static void init(const QPointer<QObject> &receiver, const QByteArray &method,
                     const QString &clientName, int repeatInterval);
    /// Ends the sending of lines. The application calls it, or init() with another receiver, before
    /// the receiver is destroyed while other threads log.
    static void release();

    /// The emitter of one line, connected to the receiver; null if lines go nowhere.
    static QPointer<TrelanLogCreator> createCreator();
    /// Whether a line is let through, which is then remembered.
    static bool checkMessage(const QString &message);
    /// A Qt message handler. Writes nothing to the console.
    static void humanKelLog(QtMsgType type, const QMessageLogContext &context,
                            const QString &message);

Q_SIGNALS:
    /// The command that carries the line; createCreator() connects this signal to the receiver.
    void sendMessage(TrelanMessage msg);

public Q_SLOTS:
    /// Emits one line, with tabs in place of line breaks.
    void sendMessage(QString prefix, QString msg);

private:
    class Private;
    const std::unique_ptr<Private> d;

    static constexpr int MAX_REPEAT_INTERVAL = 300000;
    static QMutex _mutex; // guards the statics below
    static QPointer<QObject> _sender;
    static QByteArray _method;
    static QString _baseClientName;
    static int _baseRepeatInterval;
    static int _repeatInterval;
    static QString _lastMessage;
    static QTime _lastMessageTime;
};

} // namespace bus
