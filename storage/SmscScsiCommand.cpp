#include "storage/SmscScsiCommand.h"

#include <cerrno>
#include <cstring>

#include <sys/ioctl.h>

namespace {
constexpr unsigned char VendorOpcode = 0xCF;
constexpr unsigned int TimeoutMs = 2000;
constexpr int DefaultReplyBytes = 16;
} // namespace

void PrepareSmscRequest(tSmscRequest& request, unsigned char command)
{
    request.commandBlock = { VendorOpcode, command, 0x00, 0x00, 0x20, 0x00 };
    request.sense.fill(0);
    request.data.fill(0);
    std::memset(&request.header, 0, sizeof request.header);
    sg_io_hdr_t& header = request.header;
    header.interface_id = 'S';
    header.dxfer_direction = SG_DXFER_FROM_DEV;
    header.cmd_len = static_cast<unsigned char>(request.commandBlock.size());
    header.cmdp = request.commandBlock.data();
    header.mx_sb_len = static_cast<unsigned char>(request.sense.size());
    header.sbp = request.sense.data();
    header.dxfer_len = static_cast<unsigned int>(request.data.size());
    header.dxferp = request.data.data();
    header.timeout = TimeoutMs;
    header.flags = 2;
}

QString DecodeSmscReply(const tSmscRequest& request, int replyLength)
{
    if (request.header.driver_status != 0) {
        qWarning("SendSmscScsiCommand(): ioctl driver status = %d\n", request.header.driver_status);
        return QString();
    }
    int length = replyLength <= 0 ? DefaultReplyBytes : replyLength;
    length = qMin(length, static_cast<int>(request.data.size()));
    QString reply;
    reply.reserve(2 * length);
    for (int i = 0; i < length; ++i)
        reply += QStringLiteral("%1").arg(request.data[i], 2, 16, QLatin1Char('0'));
    return reply;
}

QString SendSmscScsiCommand(int fd, unsigned char command, int replyLength)
{
    tSmscRequest request;
    PrepareSmscRequest(request, command);
    if (ioctl(fd, SG_IO, &request.header) < 0) {
        qWarning("SendSmscScsiCommand(): ioctl(): %s", std::strerror(errno));
        return QString();
    }
    return DecodeSmscReply(request, replyLength);
}
