// document_test.cpp - docs/zonflow.md documents every field that is printed, and no other.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "output/json_output.h"
#include "tests/apps/zonflow/support/zonflow_program.h"

namespace {

using namespace zonflow_tests;

using names = std::set<std::string>;

// ---- the document -----------------------------------------------------------------------------

// What stands between backquotes in the first cell of a table's row.
names names_of_row(const std::string& row) {
    names found;
    const std::string cell = row.substr(0, row.find('|', 1));
    for (size_t at = cell.find('`'); at != std::string::npos; at = cell.find('`', at + 1)) {
        const size_t end = cell.find('`', at + 1);
        found.insert(cell.substr(at + 1, end - at - 1));
        at = end;
    }
    return found;
}

// By the heading above the table.
std::map<std::string, names> documented() {
    std::map<std::string, names> sections;
    std::ifstream file("docs/zonflow.md");  // the tests run in the project's folder
    std::string heading;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("#")) {
            heading = line.substr(line.find(' ') + 1);
        } else if (line.starts_with("|")) {
            sections[heading].merge(names_of_row(line));
        }
    }
    return sections;
}

// ---- the output -------------------------------------------------------------------------------

// The names of the fields of an object, those within an inner object as "outer.inner".
names fields_of(const std::string& line) {
    names found;
    std::vector<std::string> outer;
    std::string last;
    for (size_t at = 0; at < line.size(); ++at) {
        if (line[at] == '"') {
            const size_t begin = ++at;
            while (line[at] != '"') {
                at += line[at] == '\\' ? 2 : 1;
            }
            last = line.substr(begin, at - begin);
            if (line[at + 1] == ':' && line[at + 2] != '{') {
                found.insert(outer.empty() ? last : outer.back() + "." + last);
            }
        } else if (line[at] == '{' && at > 0) {
            outer.push_back(last);
        } else if (line[at] == '}' && !outer.empty()) {
            outer.pop_back();
        }
    }
    return found;
}

// What is printed by type of line, the reasons of refusals as a type of their own.
std::map<std::string, names> printed_by(const std::string& arguments) {
    std::map<std::string, names> fields;
    for (const std::string& line : lines_of(run_zonflow("-o json " + arguments).out)) {
        const std::string type = json_field(line, "type");
        for (const std::string& field : fields_of(line)) {
            const std::string outer = field.substr(0, field.find('.'));
            if (outer == "refused") {
                fields["Why packets are refused"].insert(field.substr(outer.size() + 1));
            } else if (outer == "buckets_of_depth") {
                fields[type].insert(outer);
            } else {
                fields[type].insert(field);
            }
        }
        if (type == "summary") {
            fields[type].insert("refused");
        }
    }
    return fields;
}

// Printed without an interface, which a test may not have.
names fields_of_live_summary() {
    std::FILE* file = std::tmpfile();
    zonflow::output_stream stream(file);
    zonflow::capture_summary summary;
    summary.lost = 0;
    zonflow::json_output(stream).summary(summary);
    std::rewind(file);
    char line[1024] = "";
    std::fgets(line, sizeof(line), file);
    std::fclose(file);
    return fields_of(line);
}

// Every kind of line and every reason.
std::map<std::string, names> all_printed() {
    const bytes no_fragment = udp_segment(1, 2, 12);
    std::vector<stamped_frame> frames;
    for (const bytes& packet :
         {ipv4_packet({}, no_fragment), ipv4_packet({.from = 0x0a000009}, no_fragment),
          ipv4_packet({.protocol = 1}, bytes(8, 0)),
          ipv4_packet({.protocol = 41}, ipv6_packet(58, bytes(8, 0))), bytes(40, 0x50),
          ipv4_packet({.identification = 9, .fragment = 3}, bytes(24, 'u')),
          ipv4_packet({.from = 0xc0000201}, no_fragment)}) {
        frames.push_back({0, packet});
    }
    const temporary_file capture(pcap_bytes(frames, 101));
    std::map<std::string, names> all;
    for (const char* options : {"--max-flows 1 --veto 192.0.2.0/24",
                                "--max-flows 1000 --no-fragments --by source --dump --histogram "
                                "--bypass-after 1"}) {
        for (const auto& [type, fields] : printed_by(options + (" " + capture.path()))) {
            all[type].insert(fields.begin(), fields.end());
        }
    }
    all["summary"].merge(fields_of_live_summary());
    return all;
}

class document_of_json : public testing::TestWithParam<const char*> {};

TEST_P(document_of_json, has_every_name_that_is_printed_and_no_other) {
    const names in_document = documented()[GetParam()];
    const names in_output = all_printed()[GetParam()];
    EXPECT_FALSE(in_output.empty());
    EXPECT_EQ(in_document, in_output);
}

INSTANTIATE_TEST_SUITE_P(zonflow, document_of_json,
                         testing::Values("flow", "group", "dump", "histogram", "summary",
                                         "Why packets are refused"));

TEST(document, knows_every_kind_of_line) {
    const auto sections = documented();
    for (const auto& [type, fields] : all_printed()) {
        EXPECT_TRUE(sections.count(type)) << type;
    }
}

TEST(document, knows_every_field_of_the_example_captures) {
    auto sections = documented();
    for (const auto& entry : std::filesystem::directory_iterator("examples/captures")) {
        if (entry.path().extension() != ".pcap") {
            continue;
        }
        for (const auto& [type, fields] : printed_by(entry.path().string())) {
            EXPECT_TRUE(std::includes(sections[type].begin(), sections[type].end(), fields.begin(),
                                      fields.end()))
                << type << " of " << entry.path();
        }
    }
}

}  // namespace
