// flood_table.h - prints what floods did, as a table for people and documents.

#pragma once

#include "bucket_depths.h"
#include "flood_run.h"

namespace zon_bench {

void print_heading();
void print_row(const char* name, const flood_report& report);
// What only some floods have to tell.
void print_remarks(const char* name, const flood_report& report);
// What was expected and is not so, and the figures. Whether there is nothing of it.
bool print_disappointments(const flood& which, const flood_report& report);

void print_depth_heading(uint32_t max_flows);
void print_depth_row(unsigned bucket_depth, const depth_report& report);

}  // namespace zon_bench
