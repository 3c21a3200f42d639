// packet_roles.cpp - threads that hand packets in: both directions of the same new connections,
// fragments, tunnels, bursts, the packet kit, reports of a platform.

#include "stress/mixed/actor.h"

namespace zon_test {
namespace {

void note_sent(const actor& by, const connection& which, const answer& got) {
    const bool wildcard =
        which.what == kind::expected && which.announced_as() != ZON_FLOW_TUPLE_TYPE_COMPLETE;
    by.book().note_packet(got.fid, got.error, got.seen, wildcard);
}

// Mostly traffic; now and then a connection opens, closes or breaks off.
uint8_t flags_of_next(const actor& by) {
    constexpr uint8_t rare[] = {tcp_syn, tcp_syn | tcp_ack, tcp_fin | tcp_ack, tcp_rst};
    return by.one_in(4) ? rare[by.self.below(4)] : tcp_ack;
}

void clean_up_behind_last(const actor& by, const answer& got) {
    if (got.fid == 0 || got.seen.lif == 0)
        return;
    by.self.doing("clean up behind a packet");
    zon_pkt_ctx_t context{got.seen};
    if (zon_cleanup_packet(&context))
        by.book().did(feat::last_packet_cleaned_up);
}

void send_one(const actor& by, bool back) {
    constexpr kind kinds[] = {kind::plain,    kind::plain,  kind::plain, kind::expected,
                              kind::expected, kind::parent, kind::moved, kind::forbidden};
    const connection which = by.one_in(2) ? by.newest() : by.any_of(kinds[by.self.below(8)]);
    if (which.what == kind::forbidden) {
        by.self.doing("send a forbidden packet");
        const answer got = send_packet(by, which, packet_of(which, back));
        EXPECT_EQ(got.fid, 0U);
        EXPECT_EQ(got.error, zon_error_client_pre_create_prevented);
        by.book().did(feat::packet_forbidden);
        return;
    }
    by.self.doing(back ? "send back" : "send forward");
    if (which.what == kind::moved && back) {
        send_packet(by, which, reply_to_moved(which));
        return;
    }
    const uint8_t flags = which.what == kind::parent ? tcp_ack : flags_of_next(by);
    const answer got = send_packet(by, which, packet_of(which, back, flags));
    if (which.what == kind::parent) {
        EXPECT_EQ(got.fid, by.cast.parents.at(which.number));
    } else if (got.fid != 0 && got.seen.is_initiator == (back ? 1 : 0)) {
        by.book().did(feat::flow_met_by_both_directions);
    }
    clean_up_behind_last(by, got);
}

// The server has nobody for it: the answer ends the session.
void open_and_refuse(const actor& by) {
    const connection which = by.newest();
    by.self.doing("open a connection");
    send_packet(by, which, packet_of(which, false, tcp_syn));
    by.self.doing("refuse a connection");
    clean_up_behind_last(by, send_packet(by, which, packet_of(which, true, tcp_rst | tcp_ack)));
}

// While a client holds the flow, its packets lead to it and are counted to it one by one.
void send_while_locked(const actor& by) {
    const connection which = by.any_of(kind::plain);
    while_locked(by, which, by.one_in(2), [&](zon_fid_t fid) {
        uint32_t before = 0;
        EXPECT_EQ(zon_flow_get_packet_count(fid, &before), zon_error_none);
        by.self.doing("send on a locked flow");
        const bool back = by.one_in(2);
        const answer got = send_packet(by, which, packet_of(which, back));
        EXPECT_EQ(got.fid, fid) << "a second flow of a connection whose flow is locked";
        EXPECT_EQ(got.seen.flow_pkt_count, before + 1);
        by.book().did(feat::packet_of_locked_flow);
    });
}

void send_through_kit(const actor& by) {
    const connection which{kind::plain, by.self.below(connections_of_a_kind) & ~1U};
    packet_note note{false, group_of(which)};
    answer got;
    by.self.doing("send a packet of the kit");
    if (which.protocol() == 6)
        got.fid = zon_test_handle_tcp_packet_fields(
            which.client4(), which.server4(), mixed_client_port, mixed_server_port, 0,
            by.self.below(1000), 0, false, true, false, false, 7, &note, &got.seen, &got.error);
    else
        got.fid = zon_test_handle_packet_fields(which.client4(), which.server4(), mixed_client_port,
                                                mixed_server_port, 17, 0, 20, &note, &got.seen,
                                                &got.error);
    by.book().note_packet(got.fid, got.error, got.seen, false);
    by.book().did(feat::packet_of_the_kit);
}

// A platform that keeps flows of its own reports the next packet of one.
void synchronise(const actor& by) {
    const connection which = by.any_of(kind::plain);
    while_locked(by, which, false, [&](zon_fid_t fid) {
        uint32_t before = 0;
        EXPECT_EQ(zon_flow_get_packet_count(fid, &before), zon_error_none);
        // The first packet's report would make the flow anew.
        if (before == 0)
            return;
        bytes packet = packet_of(which, by.one_in(2));
        packet_note note{false, group_of(which)};
        answer got;
        by.self.doing("report a packet");
        got.fid = zon_sync_packet(packet.data(), 0, &note, &got.seen, &got.error, fid,
                                  ZON_L4_BI_ESTABLISHED, before + 1);
        EXPECT_EQ(got.fid, fid);
        EXPECT_EQ(got.seen.flow_pkt_count, before + 1);
        by.book().note_packet(got.fid, got.error, got.seen, false);
        by.book().did(feat::packet_synchronised);
    });
}

struct packet_in_burst {
    connection which;
    bytes content;
    packet_note note;
    answer got;
};

packet_in_burst next_in_burst(const actor& by) {
    constexpr kind kinds[] = {kind::plain,    kind::plain,  kind::plain,
                              kind::expected, kind::moved,  kind::tunnelled,
                              kind::cut_up,   kind::parent, kind::forbidden};
    packet_in_burst packet;
    packet.which = by.one_in(3) ? by.newest() : by.any_of(kinds[by.self.below(std::size(kinds))]);
    const bool back = by.one_in(2);
    if (packet.which.what == kind::cut_up)
        packet.content = fragment_of(packet.which, by.self.below(3), by.self.below(4));
    else if (packet.which.what == kind::moved && back)
        packet.content = reply_to_moved(packet.which);
    else
        packet.content = packet_of(packet.which, back,
                                   packet.which.what == kind::parent ? tcp_ack : flags_of_next(by));
    packet.note = {packet.which.what == kind::forbidden, group_of(packet.which)};
    return packet;
}

void expect_answer_in_burst(const actor& by, const packet_in_burst& packet) {
    const answer& got = packet.got;
    if (packet.which.what == kind::forbidden) {
        EXPECT_EQ(got.fid, 0U);
        EXPECT_EQ(got.error, zon_error_client_pre_create_prevented);
    } else if (packet.which.what == kind::parent) {
        EXPECT_EQ(got.fid, by.cast.parents.at(packet.which.number));
    }
    EXPECT_EQ(got.seen.packet_seen, 1);
    EXPECT_EQ(got.seen.flow, got.fid);
}

}  // namespace

answer send_packet(const actor& by, const connection& which, bytes packet, uint32_t vrf_id) {
    packet_note note{which.what == kind::forbidden, group_of(which)};
    answer got;
    if (by.one_in(2))
        got.fid = zon_handle_captured_packet(packet.data(), static_cast<uint32_t>(packet.size()),
                                             vrf_id, &note, &got.seen, &got.error);
    else
        got.fid = zon_handle_packet(packet.data(), vrf_id, &note, &got.seen, &got.error);
    note_sent(by, which, got);
    return got;
}

void send_forward(actor& by) {
    if (by.one_in(16))
        send_while_locked(by);
    else if (by.one_in(16))
        send_through_kit(by);
    else if (by.one_in(16))
        open_and_refuse(by);
    else
        send_one(by, false);
}

void send_back(actor& by) {
    if (by.one_in(16))
        send_while_locked(by);
    else if (by.one_in(16))
        synchronise(by);
    else
        send_one(by, true);
}

void send_fragments_and_tunnels(actor& by) {
    if (by.one_in(2)) {
        const connection which = by.any_of(kind::cut_up);
        const uint32_t ident = by.self.below(4);
        by.self.doing("send a fragment");
        send_packet(by, which, fragment_of(which, by.self.below(3), ident));
        return;
    }
    const connection which = by.any_of(kind::tunnelled);
    by.self.doing("send through a tunnel");
    const answer got = send_packet(by, which, packet_of(which, by.one_in(2)));
    if (got.fid != 0 && got.seen.tunnel_type != ZON_TUNNEL_TYPE_NONE)
        by.book().did(feat::tunnel_followed);
}

void send_in_bursts(actor& by) {
    std::vector<packet_in_burst> packets(1 + by.self.below(8));
    std::vector<zon_burst_packet_t> row;
    for (packet_in_burst& packet : packets) {
        packet = next_in_burst(by);
        row.push_back({packet.content.data(), static_cast<uint32_t>(packet.content.size()), 0,
                       &packet.note, &packet.got.seen, zon_error_none, 0});
    }
    by.self.doing("send a burst");
    const uint32_t with_flow =
        zon_handle_packet_burst(row.data(), static_cast<uint32_t>(row.size()));
    uint32_t counted = 0;
    for (size_t i = 0; i < packets.size(); ++i) {
        packets[i].got.fid = row[i].fid;
        packets[i].got.error = row[i].error;
        counted += row[i].fid != 0;
        expect_answer_in_burst(by, packets[i]);
        note_sent(by, packets[i].which, packets[i].got);
        by.book().did(feat::packet_in_burst);
    }
    EXPECT_EQ(with_flow, counted);
}

}  // namespace zon_test
