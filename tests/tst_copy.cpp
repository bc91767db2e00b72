#include <QTest>
class TestX : public QObject { Q_OBJECT private slots: void none() {} };
QTEST_GUILESS_MAIN(TestX)
#include "tst_copy.moc"
