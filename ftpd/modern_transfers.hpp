#pragma once
// RETR, STOR and APPE for the newer command set: any path, a restart offset (REST), appending,
// ABOR, and the host file's real size.
#include "ftpd/ftp_context.hpp"

namespace orv {

enum class UploadMode { Replace, Append };

void modern_retr_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job,
                        long long rest);
void modern_stor_thread(const FtpContextPtr& ctx, const SlotPtr& slot, const FtpJob& job,
                        long long rest, UploadMode mode);

// The last replies of a transfer that ABOR ended: 426 for the transfer, then 226 for the ABOR.
// True when it did so.
bool finish_aborted(ConnSlot& slot);

} // namespace orv
