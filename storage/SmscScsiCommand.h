#pragma once

#include <QString>

#include <array>

#include <scsi/sg.h>

// A vendor command to the card-reader chip through the SCSI generic
// interface; the two reader models answer command 0x18 with the card's CID.

struct tSmscRequest
{
    std::array<unsigned char, 6> commandBlock {};
    std::array<unsigned char, 32> sense {};
    std::array<unsigned char, 512> data {};
    sg_io_hdr_t header {};
};

// Fills the command block and an SG_IO header that points into the request.
void PrepareSmscRequest(tSmscRequest& request, unsigned char command);

// The first replyLength bytes of the reply as lowercase hex (16 bytes when
// replyLength is 0 or less, at most 512); empty when the driver reported a failure.
QString DecodeSmscReply(const tSmscRequest& request, int replyLength);

// Sends the command on an open /dev/sd* node and waits at most 2000 ms.
QString SendSmscScsiCommand(int fd, unsigned char command, int replyLength);
