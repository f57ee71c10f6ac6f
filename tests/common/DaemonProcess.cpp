#include "DaemonProcess.h"

#include <QDir>
#include <QtGlobal>


QString LarkdBinary()
{
    return qEnvironmentVariable("LARKD_BINARY");
}

void UseStandins(const QString& recordFile)
{
    const QString standins = qEnvironmentVariable("LARKD_UNIT_TOOLS") + QStringLiteral("/standins");
    qputenv("PATH", (standins + QLatin1Char(':') + qEnvironmentVariable("PATH")).toLocal8Bit());
    if (!recordFile.isEmpty())
        qputenv("LARKD_RECORD_FILE", recordFile.toLocal8Bit());
}

QString TestScript(const QString& name)
{
    return QDir(qEnvironmentVariable("LARKD_TEST_SCRIPTS")).filePath(name);
}
