// The program gripper-firmware-image.
#include "firmwareimage.h"
#include "flashmemory.h"
#include "gripperidentity.h"
#include "numbers.h"

#include <QCoreApplication>
#include <QFile>
#include <QStringList>

#include <cstdio>

namespace {
enum ExitCode { Done = 0, CannotWrite = 1, WrongUsage = 2 };

constexpr char usageText[] =
    "usage: gripper-firmware-image VERSION FILE [SIZE]\n"
    "Makes a firmware image for the grippers of gripper-simulator.\n"
    "VERSION: for example TA3-1.6.14. SIZE: bytes, 16384 by default, at most 1048576.\n";

int refuse()
{
    std::fputs(usageText, stderr);
    return WrongUsage;
}
} // namespace

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    const QStringList words = QCoreApplication::arguments().mid(1);
    if (words == QStringList{QStringLiteral("--help")} ||
        words == QStringList{QStringLiteral("-h")}) {
        std::fputs(usageText, stdout);
        return Done;
    }
    const auto size =
        sim::parseNumber(words.value(2, QString::number(sim::FirmwareImage::defaultSize)),
                         sim::FirmwareImage::headSize + 1, sim::FlashMemory::sizeBytes);
    sim::GripperIdentity identity;
    if (words.size() < 2 || words.size() > 3 || !size || !identity.setVersion(words.first()))
        return refuse();
    QFile file(words.at(1));
    const QByteArray image = sim::FirmwareImage::make(words.first(), *size);
    const bool isWritten =
        file.open(QIODevice::WriteOnly) && file.write(image) == image.size() && file.flush();
    if (!isWritten) {
        std::fprintf(stderr, "gripper-firmware-image: cannot write %s: %s\n",
                     file.fileName().toLocal8Bit().constData(),
                     file.errorString().toLocal8Bit().constData());
        return CannotWrite;
    }
    return Done;
}
