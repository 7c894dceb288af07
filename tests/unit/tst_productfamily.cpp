// The product families of the daemon are those of the simulator, which has its own list.
#include "bootloaderkind.h"
#include "gripperidentity.h"
#include "productfamily.h"

#include <QTest>

Q_DECLARE_METATYPE(const ProductFamily *)

class TestProductFamily : public QObject
{
    Q_OBJECT

private slots:
    void familiesAreThoseOfTheSimulator();
    void rowHasTheGripAndTheBootloaderOfTheSimulator_data();
    void rowHasTheGripAndTheBootloaderOfTheSimulator();
};

namespace {

QString versionOf(const QString &code)
{
    return code + QStringLiteral("1-1.0.0");
}

} // namespace

void TestProductFamily::familiesAreThoseOfTheSimulator()
{
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        const QString version = versionOf(QLatin1Char('T') + QString(QLatin1Char(letter)));
        const bool isSimulated = sim::GripperIdentity::fromVersion(9, version).has_value();
        QCOMPARE(startsWithProductCode(version), isSimulated);
    }
}

void TestProductFamily::rowHasTheGripAndTheBootloaderOfTheSimulator_data()
{
    QTest::addColumn<const ProductFamily *>("family");
    for (const ProductFamily *family : productFamilies)
        QTest::newRow(family->code.data()) << family;
}

void TestProductFamily::rowHasTheGripAndTheBootloaderOfTheSimulator()
{
    QFETCH(const ProductFamily *, family);
    const auto identity = sim::GripperIdentity::fromVersion(9, versionOf(family->code));
    QVERIFY(identity);
    QCOMPARE(family->grip == Grip::Vacuum, identity->isVacuum());
    QCOMPARE(static_cast<int>(family->bootloader->baudRate), sim::bootloaderOf(*identity).baudRate);
}

QTEST_GUILESS_MAIN(TestProductFamily)
#include "tst_productfamily.moc"
