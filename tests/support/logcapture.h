#pragma once

#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QRegularExpression>
#include <QtCore/QStringList>

/// \brief Takes every line of the Qt log, of all threads, instead of printing it.
///
/// Only one may exist at a time, and no other thread may log while it is destroyed.
class LogCapture
{
public:
    struct Line
    {
        QtMsgType level;
        QString category, file, function, text;
        int number = 0; ///< the line in the file
    };

    LogCapture()
    {
        _current = this;
        _before = qInstallMessageHandler(&LogCapture::take);
    }
    ~LogCapture() { qInstallMessageHandler(_before); }

    QList<Line> lines() const
    {
        const QMutexLocker lock(&_mutex);
        return _lines;
    }
    /// The lines as "critical: text".
    QStringList texts() const
    {
        static const char *const LEVELS[] = {"debug", "warning", "critical", "fatal", "info"};
        QStringList texts;
        for (const Line &line : lines())
            texts << QLatin1String(LEVELS[line.level]) + QLatin1String(": ") + line.text;
        return texts;
    }
    /// The lines above the level of information, as "critical: text".
    QStringList faults() const
    {
        return texts().filter(QRegularExpression(QStringLiteral("^(?!info: )")));
    }

private:
    static void take(QtMsgType level, const QMessageLogContext &at, const QString &text)
    {
        const QMutexLocker lock(&_current->_mutex);
        _current->_lines.append({level, QString::fromUtf8(at.category), QString::fromUtf8(at.file),
                                 QString::fromUtf8(at.function), text, at.line});
    }

    mutable QMutex _mutex;
    QList<Line> _lines;
    QtMessageHandler _before;
    static inline LogCapture *_current = nullptr;
};
