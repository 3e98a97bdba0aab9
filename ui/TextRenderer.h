// A deterministic text form of a view tree, for snapshot tests and for reading what a window
// shows without drawing it: one line per node, indented two spaces per level, with the node's
// kind, texts, state, enabled state and action, and its key at the end.
//
//     panel #panel
//       text[title] "Brightmix" #title
//       toggle "Brightmix" on -> setEnabled #enabled
//
// Thread: any. Realtime-safe: no.
#pragma once

#include <string>

#include "ui/View.h"

namespace brightmix::ui {

std::string renderText(const Node& root);

// "name" or name("a", "b").
std::string describeAction(const Action& action);

} // namespace brightmix::ui
