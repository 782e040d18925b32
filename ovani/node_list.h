// The list under the host table and the MAC table: doubly linked, in the order in which nodes were added,
// with an index by MAC. The nodes are the table's that holds the list, and so is counting them.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <sys/random.h>

template <typename Node>
struct NodeList {
    Node *top = nullptr;  // the oldest node, null when there is none
    Node *last = nullptr; // the youngest

    // The node's MAC stays as it is from here on.
    void append(Node *node)
    {
        node->prev = last;
        (last == nullptr ? top : last->next) = node;
        last = node;
        ++count_;
        if (count_ <= slot_count() || !grow_index()) {
            add_to_index(node);
        }
    }

    // The node's own links become null.
    void unlink(Node *node)
    {
        (node->next == nullptr ? last : node->next->prev) = node->prev;
        (node->prev == nullptr ? top : node->prev->next) = node->next;
        for (Node **link = slot(node->mac); link != nullptr && *link != nullptr;
             link = &(*link)->next_in_slot) {
            if (*link == node) {
                *link = node->next_in_slot;
                break;
            }
        }
        node->next = node->prev = node->next_in_slot = nullptr;
        --count_;
    }

    // Gives back what an empty list still holds.
    void release()
    {
        free(slots_);
        *this = {};
    }

    // The oldest node that matches, or null.
    template <typename Predicate>
    Node *find(Predicate matches) const
    {
        Node *node = top;
        while (node != nullptr && !matches(*node)) {
            node = node->next;
        }
        return node;
    }

    // The oldest node of a MAC, or null.
    Node *find_mac(const uint8_t *mac) const
    {
        auto has_mac = [mac](const Node &node) { return memcmp(node.mac, mac, sizeof node.mac) == 0; };
        if (slots_ == nullptr) {
            return find(has_mac); // there was no memory for an index
        }
        Node *node = *slot(mac);
        while (node != nullptr && !has_mac(*node)) {
            node = node->next_in_slot;
        }
        return node;
    }

private:
    Node **slots_ = nullptr; // the nodes of each slot, oldest first
    unsigned slot_bits_ = 0;
    unsigned count_ = 0;
    uint64_t multiplier_ = 0; // random, so that nobody on the LAN can choose MACs of one slot

    size_t slot_count() const { return slots_ == nullptr ? 0 : size_t{1} << slot_bits_; }

    // Multiply-shift hashing.
    Node **slot(const uint8_t *mac) const
    {
        uint64_t key = 0;
        memcpy(&key, mac, sizeof Node::mac);
        return slots_ == nullptr ? nullptr : &slots_[key * multiplier_ >> (64 - slot_bits_)];
    }

    void add_to_index(Node *node)
    {
        Node **link = slot(node->mac);
        while (link != nullptr && *link != nullptr) {
            link = &(*link)->next_in_slot;
        }
        if (link != nullptr) {
            *link = node;
        }
    }

    // Makes the index twice as big, for all nodes of the list. Without memory it stays as it is.
    bool grow_index()
    {
        constexpr unsigned first_bits = 6;
        unsigned bits = slots_ == nullptr ? first_bits : slot_bits_ + 1;
        auto **slots = static_cast<Node **>(calloc(size_t{1} << bits, sizeof(Node *)));
        if (slots == nullptr) {
            return false;
        }
        if (slots_ == nullptr && getrandom(&multiplier_, sizeof multiplier_, GRND_NONBLOCK) < 0) {
            multiplier_ = 0x9e3779b97f4a7c15; // early at boot: still a good spread
        }
        multiplier_ |= 1;
        free(slots_);
        slots_ = slots;
        slot_bits_ = bits;
        for (Node *node = top; node != nullptr; node = node->next) {
            node->next_in_slot = nullptr;
            add_to_index(node);
        }
        return true;
    }
};
