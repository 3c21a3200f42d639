// tcp_rules.h - reads the tables of docs/states/tcp.md and judges packets by them.
//
// Slow, and shares nothing with the tracker but the records of the interface.

#pragma once

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/tcp_packet.h"

namespace tcp_test {

// Verdicts of a step beyond those of the interface.
constexpr int undecided = -1;
constexpr int as_result = -2;
constexpr int taken = -3;
constexpr int refused = -4;

// A name or a number in a sum. The banks are: the packet and what the steps remember, then the
// records.
struct term {
    enum bank_of { packet, initiator, responder, sender, receiver, number };
    bank_of bank = number;
    size_t slot = 0;
    uint32_t value = 0;
    bool negative = false;
};
using expression = std::vector<term>;

enum class note_of { own_fin, peer_fin, own_fin_acked };
enum class relation { is, before, after, below, above };

struct condition {
    enum what { checks, flag, exact_flags, payload, noted, result, ack_refused, compare };
    what kind = checks;
    bool negated = false;
    uint8_t flags = 0;
    note_of note{};
    relation rel{};
    int value = 0;
    expression left{}, right{};
};

struct action {
    enum what { assign, set_state, set_session, note_fin, note_ack, set_result, step };
    what kind = assign;
    int value = 0;
    term target{};
    expression from{};
    std::string step_name{};
};

struct rule {
    std::string text;
    std::string name;  // of the state or the step
    std::string from;
    std::vector<std::vector<condition>> when;  // all of them, any of each
    std::vector<action> then;
    int verdict = undecided;
    mutable uint64_t hits = 0;
};

inline const std::map<std::string, int>& verdict_names() {
    static const std::map<std::string, int> names{
        {"-", undecided},
        {"result", as_result},
        {"taken", taken},
        {"refused", refused},
        {"NOERR", ZON_L4_NOERR},
        {"INVALID_DIR", ZON_L4_INVALID_DIR},
        {"INVALID_FLAGS", ZON_L4_INVALID_FLAGS},
        {"INVALID_DATA", ZON_L4_INVALID_DATA},
        {"INVALID_ACK", ZON_L4_INVALID_ACK},
        {"INVALID_SEQ", ZON_L4_INVALID_SEQ},
        {"OOO_SEG", ZON_L4_OOO_SEG},
        {"RETRANS_SEG", ZON_L4_RETRANS_SEG},
        {"RST_IN_WIND", ZON_L4_RST_IN_WIND},
        {"SYN_IN_WIND", ZON_L4_SYN_IN_WIND},
        {"RETRANS_INVALID_FLAGS", ZON_L4_RETRANS_INVALID_FLAGS},
        {"INVALID_STATE", ZON_L4_INVALID_STATE},
        {"OOO_PROT_SEMANTICS", ZON_L4_OOO_PROT_SEMANTICS},
    };
    return names;
}

inline std::string name_of_verdict(int code) {
    for (const auto& [name, value] : verdict_names())
        if (value == code)
            return name;
    return std::to_string(code);
}

// The language of the tables.
class rule_reader {
public:
    static std::vector<std::string> split(const std::string& text, const std::string& by) {
        std::vector<std::string> parts;
        size_t from = 0;
        for (size_t at; (at = text.find(by, from)) != std::string::npos; from = at + by.size())
            parts.push_back(trimmed(text.substr(from, at - from)));
        parts.push_back(trimmed(text.substr(from)));
        return parts;
    }

    static rule read_row(const std::string& line, const std::vector<std::string>& cells) {
        rule row;
        row.text = line;
        row.name = cells.front();
        row.from = cells.size() == 5 ? cells[1] : "either";
        for (const std::string& all : split(cells[cells.size() - 3], ",")) {
            if (all == "always")
                continue;
            row.when.emplace_back();
            for (const std::string& any : split(all, " or "))
                row.when.back().push_back(read_condition(any));
        }
        for (const std::string& one : split(cells[cells.size() - 2], ";"))
            if (one != "-")
                row.then.push_back(read_action(one));
        row.verdict = look_up(verdict_names(), cells.back());
        return row;
    }

    static int state_value(const std::string& name) {
        static const std::map<std::string, int> names{
            {"listen", ZON_TCP_LISTEN},        {"syn_sent", ZON_TCP_SYNSENT},
            {"syn_recv", ZON_TCP_SYNRCVD},     {"estab", ZON_TCP_ESTAB},
            {"close_wait", ZON_TCP_CLOSEWAIT}, {"last_ack", ZON_TCP_LASTACK},
            {"time_wait", ZON_TCP_TIMEWAIT},
        };
        return look_up(names, name);
    }

private:
    template <class value>
    static value look_up(const std::map<std::string, value>& names, const std::string& name) {
        const auto at = names.find(name);
        if (at == names.end())
            throw std::runtime_error("not a word of the table: '" + name + "'");
        return at->second;
    }

    static std::string trimmed(const std::string& text) {
        const size_t from = text.find_first_not_of(' ');
        return from == std::string::npos ? ""
                                         : text.substr(from, text.find_last_not_of(' ') - from + 1);
    }

    static const std::map<std::string, uint8_t>& flag_names() {
        static const std::map<std::string, uint8_t> names{{"FIN", fin}, {"SYN", syn}, {"RST", rst},
                                                          {"PSH", psh}, {"ACK", ack}, {"URG", urg}};
        return names;
    }

    static int session_value(const std::string& name) {
        static const std::map<std::string, int> names{
            {"closed", ZON_L4_CLOSED},
            {"opening", ZON_L4_OPENING},
            {"uni-established", ZON_L4_UNI_ESTABLISHED},
            {"uni-established incorrect", ZON_L4_UNI_ESTABLISHED_INCORRECT},
            {"bi-established", ZON_L4_BI_ESTABLISHED},
            {"bi-established incorrect", ZON_L4_BI_ESTABLISHED_INCORRECT},
            {"closing", ZON_L4_CLOSING},
        };
        return look_up(names, name);
    }

    static term read_term(const std::string& word, bool negative) {
        static const std::map<std::string, size_t> of_packet{
            {"seq", 0}, {"ack", 1}, {"win", 2},  {"len", 3},   {"control", 4},
            {"end", 5}, {"old", 6}, {"edge", 7}, {"closed", 8}};
        static const std::map<std::string, size_t> of_record{
            {"valid", 0}, {"iseq", 1}, {"rcvnxt", 2}, {"sndnxt", 3}, {"rcvwnd", 4}, {"rcvlmt", 5}};
        static const std::map<std::string, term::bank_of> banks{{"i", term::initiator},
                                                                {"r", term::responder},
                                                                {"snd", term::sender},
                                                                {"rcv", term::receiver}};
        if (!word.empty() && word.find_first_not_of("0123456789") == std::string::npos)
            return {term::number, 0, static_cast<uint32_t>(std::stoul(word)), negative};
        const size_t dot = word.find('.');
        if (dot == std::string::npos)
            return {term::packet, look_up(of_packet, word), 0, negative};
        return {look_up(banks, word.substr(0, dot)), look_up(of_record, word.substr(dot + 1)), 0,
                negative};
    }

    static expression read_expression(const std::string& text) {
        expression sum;
        bool negative = false;
        for (const std::string& word : split(text, " ")) {
            if (word == "+" || word == "-")
                negative = word == "-";
            else
                sum.push_back(read_term(word, negative));
        }
        return sum;
    }

    static bool drop_prefix(std::string& text, const std::string& prefix) {
        if (text.rfind(prefix, 0) != 0)
            return false;
        text = text.substr(prefix.size());
        return true;
    }

    static condition read_condition(std::string text) {
        static const std::map<std::string, note_of> notes{
            {"own FIN", note_of::own_fin},
            {"peer FIN", note_of::peer_fin},
            {"own FIN acked", note_of::own_fin_acked}};
        condition c;
        c.negated = drop_prefix(text, "no ");
        if (drop_prefix(text, "only ")) {
            c.kind = condition::exact_flags;
            for (const std::string& name : split(text, " "))
                c.flags = static_cast<uint8_t>(c.flags | look_up(flag_names(), name));
        } else if (drop_prefix(text, "result ")) {
            c.kind = condition::result;
            c.negated = drop_prefix(text, "not ");
            c.value = look_up(verdict_names(), text);
        } else if (text == "checks") {
            c.kind = condition::checks;
        } else if (text == "payload") {
            c.kind = condition::payload;
        } else if (text == "acknowledgement refused") {
            c.kind = condition::ack_refused;
        } else if (flag_names().count(text)) {
            c.kind = condition::flag;
            c.flags = look_up(flag_names(), text);
        } else if (notes.count(text)) {
            c.kind = condition::noted;
            c.note = look_up(notes, text);
        } else {
            read_comparison(text, c);
        }
        return c;
    }

    static void read_comparison(const std::string& text, condition& c) {
        static const std::map<std::string, std::pair<relation, bool>> relations{
            {" is not ", {relation::is, true}},         {" is ", {relation::is, false}},
            {" not before ", {relation::before, true}}, {" before ", {relation::before, false}},
            {" after ", {relation::after, false}},      {" below ", {relation::below, false}},
            {" above ", {relation::above, false}},
        };
        c.kind = condition::compare;
        // The longer of two that fit, so that "is not" is no "is".
        std::string best;
        for (const auto& [word, meaning] : relations)
            if (text.find(word) != std::string::npos && word.size() > best.size())
                best = word;
        if (best.empty())
            throw std::runtime_error("not a condition: '" + text + "'");
        std::tie(c.rel, c.negated) = relations.at(best);
        const auto sides = split(text, best);
        c.left = read_expression(sides.at(0));
        c.right = read_expression(sides.at(1));
    }

    static action read_action(std::string text) {
        action a;
        if (const auto sides = split(text, " = "); sides.size() == 2) {
            a.target = read_term(sides[0], false);
            a.from = read_expression(sides[1]);
        } else if (drop_prefix(text, "state ")) {
            a.kind = action::set_state;
            a.value = state_value(text);
        } else if (drop_prefix(text, "session ")) {
            a.kind = action::set_session;
            a.value = session_value(text);
        } else if (drop_prefix(text, "result ")) {
            a.kind = action::set_result;
            a.value = look_up(verdict_names(), text);
        } else if (text == "note FIN" || text == "note ACK") {
            a.kind = text == "note FIN" ? action::note_fin : action::note_ack;
        } else {
            a.kind = action::step;
            a.step_name = text;
        }
        return a;
    }
};

struct judgement {
    zon_l4_retcode verdict;
    zon_l4_state_t record;
};

class rule_book {
public:
    // Throws std::runtime_error with the row that it cannot read.
    explicit rule_book(const std::string& markdown) {
        std::istringstream lines(markdown);
        for (std::string line; std::getline(lines, line);) {
            if (line.empty() || line[0] != '|' || line.find("---") != std::string::npos)
                continue;
            const auto cells = rule_reader::split(line.substr(1, line.rfind('|') - 1), "|");
            if (cells[0] == "State" || cells[0] == "Step")
                continue;
            try {
                auto& rows = cells.size() == 5 ? states_[rule_reader::state_value(cells[0])]
                                               : steps_[cells[0]];
                rows.push_back(rule_reader::read_row(line, cells));
            } catch (const std::exception& e) {
                throw std::runtime_error(std::string(e.what()) + " in " + line);
            }
        }
    }

    judgement judge(const zon_l4_state_t& record, const tcp_fields& packet, bool checks) const {
        world w;
        w.state = record.tcp_state;
        w.session = record.sess_state;
        w.notes = record.term_flags;
        w.banks[term::initiator] = unpack(record.i_info);
        w.banks[term::responder] = unpack(record.r_info);
        w.from_initiator = packet.from_initiator;
        w.checks = checks;
        w.flags = packet.flags;
        w.banks[term::packet] = {packet.seq, packet.ack, packet.window, packet.payload,
                                 (packet.flags & (syn | fin)) ? 1u : 0u};
        const auto rows = states_.find(w.state);
        const int verdict =
            rows == states_.end() ? int{ZON_L4_INVALID_STATE} : run(w, rows->second);
        zon_l4_state_t after = record;  // whatever the tables do not name stays
        after.tcp_state = static_cast<zon_tcp_state_t>(w.state);
        after.sess_state = static_cast<uint8_t>(w.session);
        after.term_flags = w.notes;
        pack(w.banks[term::initiator], after.i_info);
        pack(w.banks[term::responder], after.r_info);
        return {static_cast<zon_l4_retcode>(verdict), after};
    }

    const std::map<int, std::vector<rule>>& states() const { return states_; }
    const std::map<std::string, std::vector<rule>>& steps() const { return steps_; }

private:
    using bank = std::array<uint32_t, 9>;
    struct world {
        int state = 0;
        int session = 0;
        uint8_t notes = 0;
        bool from_initiator = false;
        bool checks = false;
        uint8_t flags = 0;
        int result = ZON_L4_NOERR;
        bool ack_refused = false;
        std::array<bank, 3> banks{};

        size_t place(term::bank_of which) const {
            if (which == term::sender)
                return from_initiator ? term::initiator : term::responder;
            if (which == term::receiver)
                return from_initiator ? term::responder : term::initiator;
            return which;
        }
    };

    static bank unpack(const zon_tcp_state_info& from) {
        return {static_cast<uint32_t>(from.valid_next_seq_number),
                from.iseq,
                from.rcvnxt,
                from.sndnxt,
                from.rcvwnd,
                from.rcvlmt};
    }
    static void pack(const bank& from, zon_tcp_state_info& to) {
        to = {static_cast<zon_tcp_next_seq_valid_e>(from[0]),
              from[1],
              from[2],
              from[3],
              from[4],
              from[5]};
    }

    int run(world& w, const std::vector<rule>& rows) const {
        for (const rule& row : rows) {
            if (!applies(w, row))
                continue;
            ++row.hits;
            for (const action& a : row.then)
                carry_out(w, a);
            if (row.verdict == as_result)
                return w.result;
            if (row.verdict != undecided)
                return row.verdict;
        }
        throw std::runtime_error("the rows of '" + rows.front().name + "' name no verdict");
    }

    bool applies(const world& w, const rule& row) const {
        if (row.from != "either" && (row.from == "initiator") != w.from_initiator)
            return false;
        return std::all_of(row.when.begin(), row.when.end(), [&](const auto& any) {
            return std::any_of(any.begin(), any.end(),
                               [&](const condition& c) { return holds(w, c) != c.negated; });
        });
    }

    static uint32_t sum(const world& w, const expression& e) {
        int64_t total = 0;
        for (const term& t : e) {
            const uint32_t value =
                t.bank == term::number ? t.value : w.banks[w.place(t.bank)][t.slot];
            total += t.negative ? -int64_t{value} : int64_t{value};
        }
        constexpr int64_t modulus = int64_t{1} << 32;
        return static_cast<uint32_t>((total % modulus + modulus) % modulus);
    }

    // The difference as a number from -2^31 to 2^31 - 1.
    static int64_t signed_difference(uint32_t a, uint32_t b) {
        int64_t d = int64_t{a} - int64_t{b};
        if (d >= int64_t{1} << 31)
            d -= int64_t{1} << 32;
        if (d < -(int64_t{1} << 31))
            d += int64_t{1} << 32;
        return d;
    }

    static bool compare(relation rel, uint32_t a, uint32_t b) {
        switch (rel) {
        case relation::is:
            return a == b;
        case relation::before:
            return signed_difference(a, b) < 0;
        case relation::after:
            return signed_difference(a, b) > 0;
        case relation::below:
            return a < b;
        default:
            return a > b;
        }
    }

    static bool is_noted(const world& w, note_of note) {
        switch (note) {
        case note_of::own_fin:
            return w.notes & (w.from_initiator ? 1 : 4);
        case note_of::peer_fin:
            return w.notes & (w.from_initiator ? 4 : 1);
        default:
            return w.notes & (w.from_initiator ? 2 : 8);
        }
    }

    static bool holds(const world& w, const condition& c) {
        switch (c.kind) {
        case condition::checks:
            return w.checks;
        case condition::flag:
            return w.flags & c.flags;
        case condition::exact_flags:
            return (w.flags & (fin | syn | rst | psh | ack | urg)) == c.flags;
        case condition::payload:
            return w.banks[term::packet][3] != 0;
        case condition::noted:
            return is_noted(w, c.note);
        case condition::result:
            return w.result == c.value;
        case condition::ack_refused:
            return w.ack_refused;
        default:
            return compare(c.rel, sum(w, c.left), sum(w, c.right));
        }
    }

    void carry_out(world& w, const action& a) const {
        switch (a.kind) {
        case action::assign:
            w.banks[w.place(a.target.bank)][a.target.slot] = sum(w, a.from);
            break;
        case action::set_state:
            w.state = a.value;
            break;
        case action::set_session:
            w.session = a.value;
            break;
        case action::note_fin:
            w.notes = static_cast<uint8_t>(w.notes | (w.from_initiator ? 1 : 4));
            break;
        case action::note_ack:
            w.notes = static_cast<uint8_t>(w.notes | (w.from_initiator ? 8 : 2));
            break;
        case action::set_result:
            w.result = a.value;
            break;
        case action::step:
            const int outcome = run(w, steps_.at(a.step_name));
            if (outcome == taken || outcome == refused)
                w.ack_refused = outcome == refused;
            else
                w.result = outcome;
            break;
        }
    }

    std::map<int, std::vector<rule>> states_;
    std::map<std::string, std::vector<rule>> steps_;
};

// The text of docs/states/tcp.md, looked for from the working directory upwards; throws without it.
inline std::string read_tcp_document() {
    namespace fs = std::filesystem;
    for (fs::path at = fs::current_path();; at = at.parent_path()) {
        if (std::ifstream file(at / "docs/states/tcp.md"); file)
            return {std::istreambuf_iterator<char>(file), {}};
        if (at == at.root_path())
            throw std::runtime_error("docs/states/tcp.md is not above the working directory");
    }
}

}  // namespace tcp_test
