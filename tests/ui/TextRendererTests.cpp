// The text form itself: escaping, states and actions, so that golden files stay readable and
// unambiguous.
#include <gtest/gtest.h>

#include "ui/TextRenderer.h"

namespace brightmix::ui {
namespace {

TEST(TextRenderer, EveryKindAndItsState) {
    Node disabled = button("b", "Go", "play.fill", {"go", {"x", "y\"z"}}, ButtonRole::primary);
    disabled.isEnabled = false;
    const Node tree =
        window("w", "Title",
               {text("t", "line\nnext \"quoted\"", TextRole::error),
                toggle("o", "Switch", false, {"flip", {}}),
                slider("s", "Level", 0.125, 0, 1, "13", {"set", {}}), std::move(disabled),
                picker("p", "Pick", {{"a", "A"}, {"b", "B", false}}, "b", {"choose", {}}),
                menu("m", "More", "",
                     {menuToggle("m1", "One", true, {"one", {}}), menuSeparator("m2"),
                      submenu("m3", "Sub", {menuItem("m4", "Four", {"four", {}})})}),
                callout("c", "exclamationmark.circle.fill", "Careful"), list("l", {}, "Nothing"),
                textField("f", "", "Name", {"name", {}}, true),
                levelMeter("lm", "Level", -60, -60, 0, "Silent"), image("i", "app"),
                confirmation("d", "Sure?", "Really.", "Yes", {"yes", {}}), spacer("sp")});
    EXPECT_EQ(renderText(tree),
              "window \"Title\" #w\n"
              "  text[error] \"line\\nnext \\\"quoted\\\"\" #t\n"
              "  toggle \"Switch\" off -> flip #o\n"
              "  slider \"Level\" 0.125 in 0...1 \"13\" -> set #s\n"
              "  button[primary] \"Go\" (play.fill) disabled -> go(\"x\", \"y\\\"z\") #b\n"
              "  picker \"Pick\" = \"b\" -> choose #p\n"
              "    - \"A\" = \"a\"\n"
              "    * \"B\" = \"b\" disabled\n"
              "  menu \"More\" #m\n"
              "    item \"One\" [x] -> one #m1\n"
              "    separator #m2\n"
              "    submenu \"Sub\" #m3\n"
              "      item \"Four\" -> four #m4\n"
              "  callout (exclamationmark.circle.fill) \"Careful\" #c\n"
              "  list empty \"Nothing\" #l\n"
              "  field \"\" placeholder \"Name\" clear -> name #f\n"
              "  meter \"Level\" -60 in -60...0 \"Silent\" #lm\n"
              "  image (app) #i\n"
              "  confirmation \"Sure?\" \"Really.\" cancel \"Cancel\" confirm[destructive] \"Yes\" "
              "-> yes #d\n"
              "  spacer #sp\n");
    EXPECT_EQ(findNode(tree, "f")->placeholder, "Name");
    EXPECT_EQ(findMenuEntry(tree, "m4")->title, "Four");
    EXPECT_EQ(findNode(tree, "missing"), nullptr);
}

TEST(TextRenderer, NumbersReadBackExactlyWhateverTheLocale) {
    EXPECT_EQ(formatNumber(0.5), "0.5");
    EXPECT_EQ(formatNumber(80), "80");
    EXPECT_EQ(formatNumber(0.1), "0.1");
    EXPECT_EQ(formatNumber(-60), "-60");
}

} // namespace
} // namespace brightmix::ui
