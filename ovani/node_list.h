// The list under the host table and the MAC table: doubly linked, in the order in which nodes were added. The
// nodes are the table's that holds the list, and so is counting them.
#pragma once

template <typename Node>
struct NodeList {
    Node *top; // the oldest node, null when there is none

    void append(Node *node)
    {
        Node *last = nullptr;
        Node **link = &top;
        while (*link != nullptr) {
            last = *link;
            link = &last->next;
        }
        *link = node;
        node->prev = last;
    }

    // The node's own links become null.
    void unlink(Node *node)
    {
        if (node->next != nullptr) {
            node->next->prev = node->prev;
        }
        if (node->prev != nullptr) {
            node->prev->next = node->next;
        } else {
            top = node->next;
        }
        node->next = nullptr;
        node->prev = nullptr;
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
};
