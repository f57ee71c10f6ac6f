#include "DaemonProcess.h"

#include <QDir>
#include <QtGlobal>


QString LarkdBinary()
{
    return qEnvironmentVariable("LARKD_BINARY");
}

QString TestScript(const QString& name)
{
    return QDir(qEnvironmentVariable("LARKD_TEST_SCRIPTS")).filePath(name);
}
