// zon_l4.cpp - the texts of connection states, session states and verdicts.

#include "zon_l4.h"

#include <array>
#include <cstddef>

namespace {

struct text_row {
    int value;
    const char* text;
};

template <size_t count>
constexpr bool rows_follow_values(const std::array<text_row, count>& rows, int end) {
    if (static_cast<int>(count) != end)
        return false;
    for (size_t i = 0; i < count; ++i)
        if (rows[i].value != static_cast<int>(i) || rows[i].text == nullptr ||
            rows[i].text[0] == '\0')
            return false;
    return true;
}

template <size_t count>
const char* text_of(const std::array<text_row, count>& rows, int value) {
    return value >= 0 && static_cast<size_t>(value) < count ? rows[static_cast<size_t>(value)].text
                                                            : "unknown";
}

constexpr std::array tcp_state_rows{
    text_row{ZON_TCP_CLOSED, "closed"},    text_row{ZON_TCP_LISTEN, "listen"},
    text_row{ZON_TCP_SYNSENT, "syn_sent"}, text_row{ZON_TCP_SYNRCVD, "syn_recv"},
    text_row{ZON_TCP_ESTAB, "estab"},      text_row{ZON_TCP_CLOSEWAIT, "close_wait"},
    text_row{ZON_TCP_LASTACK, "last_ack"}, text_row{ZON_TCP_TIMEWAIT, "time_wait"},
};
static_assert(rows_follow_values(tcp_state_rows, ZON_TCP_ENUM_END));

constexpr std::array session_state_rows{
    text_row{ZON_L4_CLOSED, "closed"},
    text_row{ZON_L4_OPENING, "opening"},
    text_row{ZON_L4_UNI_ESTABLISHED, "uni-established"},
    text_row{ZON_L4_UNI_ESTABLISHED_INCORRECT, "uni-established incorrect"},
    text_row{ZON_L4_BI_ESTABLISHED, "bi-established"},
    text_row{ZON_L4_BI_ESTABLISHED_INCORRECT, "bi-established incorrect"},
    text_row{ZON_L4_CLOSING, "closing"},
};
static_assert(rows_follow_values(session_state_rows, ZON_L4_ENUM_END));

constexpr std::array verdict_rows{
    text_row{ZON_L4_NOERR, "no error"},
    text_row{ZON_L4_INVALID_DIR, "invalid dir"},
    text_row{ZON_L4_INVALID_FLAGS, "invalid flags"},
    text_row{ZON_L4_INVALID_DATA, "invalid data"},
    text_row{ZON_L4_INVALID_ACK, "invalid ack"},
    text_row{ZON_L4_INVALID_SEQ, "invalid seq"},
    text_row{ZON_L4_OOO_SEG, "OOO Seg"},
    text_row{ZON_L4_RETRANS_SEG, "retrans seg"},
    text_row{ZON_L4_RST_IN_WIND, "rst in wind"},
    text_row{ZON_L4_SYN_IN_WIND, "syn in wind"},
    text_row{ZON_L4_RETRANS_INVALID_FLAGS, "retrans invalid flags"},
    text_row{ZON_L4_INVALID_STATE, "invalid state"},
    text_row{ZON_L4_OOO_PROT_SEMANTICS, "OOO prot semantics"},
    text_row{ZON_L4_UNSUPPORTED_PROTO, "unsupported protocol"},
    text_row{ZON_L4_NOERR_NON_FIRST_FRAG, "non-first frag"},
};
static_assert(rows_follow_values(verdict_rows, ZON_L4_RET_ENUM_END));

}  // namespace

const char* zon_tcp_state_string(zon_tcp_state_t state) {
    return text_of(tcp_state_rows, state);
}
const char* zon_session_state_string(int state) {
    return text_of(session_state_rows, state);
}
const char* zon_l4_retcode_string(int code) {
    return text_of(verdict_rows, code);
}
