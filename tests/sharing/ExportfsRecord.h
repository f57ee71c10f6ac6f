#pragma once

#include <QFile>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

// The exportfs stand-in (tools/unit/standins) first on PATH, recording each
// invocation as one line of tab-separated arguments.
class tExportfsRecord
{
public:
    tExportfsRecord(const QTemporaryDir& dir, const QString& standins)
        : m_Path(dir.filePath(QStringLiteral("exportfs.calls")))
    {
        qputenv("PATH", (standins + QLatin1Char(':') + qEnvironmentVariable("PATH")).toLocal8Bit());
        qputenv("LARKD_RECORD_FILE", m_Path.toLocal8Bit());
    }

    // Invocations so far, each as "exportfs<TAB>arg<TAB>arg...".
    QStringList Calls() const
    {
        QFile file(m_Path);
        if (!file.open(QIODevice::ReadOnly))
            return QStringList();
        return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    // The invocations since the last Take().
    QStringList Take()
    {
        const QStringList calls = Calls();
        QFile::remove(m_Path);
        return calls;
    }

    static QString Call(const QStringList& arguments)
    {
        return (QStringList{QStringLiteral("exportfs")} + arguments).join(QLatin1Char('\t'));
    }

private:
    QString m_Path;
};
