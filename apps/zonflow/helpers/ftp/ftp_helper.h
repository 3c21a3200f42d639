// ftp_helper.h - reads FTP control connections and announces the data connections that they tell
// of, as children of the control flow.
//
// Reads  lines that lie within one segment; one that is split over two is missed.
#ifndef ZONFLOW_FTP_HELPER_H
#define ZONFLOW_FTP_HELPER_H

#include "helpers/announcer.h"
#include "helpers/ftp/ftp_lines.h"
#include "helpers/seen_packet.h"

namespace zonflow {

class ftp_helper {
public:
    // Needs an engine. Throws announcer_error.
    ftp_helper();

    void before_packet() { announcer_.withdraw_orphans(); }
    void after_packet(const seen_packet& packet);

private:
    void announce(const seen_packet& packet, const ftp_announcement& announcement);
    announcer announcer_;
};

}  // namespace zonflow

#endif
