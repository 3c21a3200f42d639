// zon_lock_order.cpp - the engine's classes of locks, handed to the runtime's check of their order.
//
// Owns   the classes.
// Locks  none.
// Empty where the order is not checked.

#include "zon_lock_classes.h"

#ifdef ZON_CHECK_LOCK_ORDER

namespace {

constexpr vem_lock_siblings as_vem(lock_siblings siblings) {
    switch (siblings) {
    case lock_siblings::in_row:
        return VEM_LOCK_IN_ROW;
    case lock_siblings::hosts:
        return VEM_LOCK_OF_USERS;
    default:
        return VEM_LOCK_ALONE;
    }
}

using vem_classes = std::array<vem_lock_class, lock_class_rows.size()>;

constexpr vem_classes as_vem_classes() {
    vem_classes classes{};
    for (size_t row = 0; row < classes.size(); ++row) {
        const lock_class_row& from = lock_class_rows[row];
        classes[row] = {from.name, from.step, as_vem(from.siblings)};
    }
    return classes;
}

constexpr bool steps_are_those_of_users() {
    for (const lock_class_row& row : lock_class_rows)
        if (row.step < VEM_LOCK_FIRST_STEP_OF_USERS || row.step > VEM_LOCK_LAST_STEP_OF_USERS)
            return false;
    return true;
}
static_assert(steps_are_those_of_users());

constexpr vem_classes classes = as_vem_classes();

}  // namespace

const vem_lock_class* zon_vem_lock_class(lock_class of) {
    return &classes[static_cast<size_t>(of)];
}

void zon_order_wanted(lock_class of, const void* lock) {
    vem_lock_wanted(zon_vem_lock_class(of), lock, 0);
}
void zon_order_taken(lock_class of, const void* lock) {
    vem_lock_taken(zon_vem_lock_class(of), lock, 0);
}
void zon_order_released(const void* lock) {
    vem_lock_released(lock);
}

void zon_flow_could_wait(const zon_flow_t* flow) {
    if (flow != nullptr)
        vem_lock_could_wait(flow->flow_lock);
}
void zon_flow_claimed(const zon_flow_t* flow) {
    if (flow != nullptr)
        vem_lock_claimed(flow->flow_lock);
}
void zon_flow_claim_ended(const zon_flow_t* flow) {
    if (flow != nullptr)
        vem_lock_claim_ended(flow->flow_lock);
}

client_function::client_function() {
    vem_lock_user_begins();
}
client_function::~client_function() {
    vem_lock_user_ends();
}

#endif
