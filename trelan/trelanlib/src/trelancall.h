#pragma once

#include "trelanglobal.h"

#include "trelancommand.h"

#include <QtCore/QMetaType>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

#include <memory>

namespace bus
{

class OpenCall;

/// \brief A call that a TrelanClient serves, and that is answered later.
///
/// A cheap value: copies stand for one call, and may be used in any thread. The first answer
/// counts. Where the last copy is gone without one the caller gets an error, so that it does not
/// wait in vain. A call that needs no answer takes one and sends nothing.
///
/// \code
/// client.serve("scan", this, [this](const bus::TrelanCall &call) {
///     connect(startScan(), &Scan::done, this,
///             [call](int found) { call.answer({ { "found", found } }); });
/// });
/// \endcode
class TRELAN_EXPORT TrelanCall
{
public:
    /// No call: answers go nowhere.
    TrelanCall();
    explicit TrelanCall(const std::shared_ptr<OpenCall> &call);
    TrelanCall(const TrelanCall &other);
    TrelanCall &operator=(const TrelanCall &other);
    ~TrelanCall();

    /// What is called, by whom, with which parameters.
    TrelanCommand command() const;

    /// Answers. Returns at once; nothing tells whether the caller is still there.
    void answer(const QVariantMap &result) const;
    /// Answers with the parameter "error", which every caller of this library and `trelanctl call`
    /// takes for a failure.
    void fail(const QString &description) const;

private:
    std::shared_ptr<OpenCall> _call;
};

} // namespace bus

Q_DECLARE_METATYPE(bus::TrelanCall)
