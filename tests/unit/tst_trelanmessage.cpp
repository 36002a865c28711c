#include "testsupport.h"

#include <trelanmessage.h>

using namespace bus;

class tst_TrelanMessage : public QObject
{
    Q_OBJECT
    TrelanMessage _message;

private slots:
    void init()
    {
        _message = TrelanMessage();
        QCOMPARE(int(_message.options()), 0);
        _message.setSender("A");
        _message.setReciever("B");
        _message.setMessage("t\u00e4xt");
        _message.setUid("U");
        _message.setDt(QDateTime::fromMSecsSinceEpoch(1700000000123, Qt::UTC));
        _message.setOptions(TrelanMessage::Options(QFlag(0x107)));
    }

    void flagsTouchTheirOwnBitOnly()
    {
        _message.setStored(false);
        QCOMPARE(int(_message.options()), 0x105);
        _message.setLogged(false);
        _message.setNeedAnswer(false);
        QCOMPARE(int(_message.options()), 0x100);
    }

    void key()
    {
        QCOMPARE(_message.msgKey(), "A.B.U");
        // The fields are filled in one after the other, so that a place mark inside one is filled
        // too.
        _message.setSender("%2");
        QCOMPARE(_message.msgKey(), "B.B.U");
    }

    void wireFormAndId()
    {
        QVERIFY(makesUidOf(_message, "TrelanMessageABt\xc3\xa4xt2023-11-14T22:13:20Z263", ""));
        checkWireForm(_message, "{\"dt\":\"1700000000123\",\"msg\":\"t\xc3\xa4xt\",\"ops\":263,"
                                "\"r\":\"B\",\"s\":\"A\",\"uid\":\"U\"}");
    }
};

QTEST_APPLESS_MAIN(tst_TrelanMessage)
#include "tst_trelanmessage.moc"
