// Singly linked sample lists, as every writer keeps them: appended at the
// tail, walked and freed from the head.
#pragma once

#include <cstdlib>

namespace mp4rec {

// Appends `node` behind `tail` (or makes it the head of an empty list).
template <typename Node>
void list_append(Node *&head, Node *&tail, Node *node) {
  node->next = nullptr;
  if (head == nullptr) {
    head = node;
  } else {
    tail->next = node;
  }
  tail = node;
}

// Unlinks the last node (not freed) by walking to the one before it.
template <typename Node>
void list_drop_tail(Node *&head, Node *&tail) {
  Node *before = nullptr;
  for (Node *n = head; n != tail; n = n->next) before = n;
  if (before == nullptr) {
    head = nullptr;
  } else {
    before->next = nullptr;
  }
  tail = before;
}

// Frees every node from the head, saving `next` before each free, and
// empties the list.
template <typename Node>
void list_free(Node *&head, Node *&tail) {
  for (Node *n = head; n != nullptr;) {
    Node *next = n->next;
    std::free(n);
    n = next;
  }
  head = nullptr;
  tail = nullptr;
}

}  // namespace mp4rec
