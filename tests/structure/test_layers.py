"""The layering check finds forbidden includes, and nothing in a clean tree."""

import os
import tempfile
import unittest

import layers

HERE = os.path.dirname(os.path.abspath(__file__))
TREE = {
    "libs/Qel/include/Qel/Types": "#include <cstdint>\n",
    "libs/Qel/include/Qel/Entity": "#include <Qel/Types>\n#include <sys/types.h>\n",
    "libs/Dov/include/Dov/SharedMem": "#include <Qel/Types>\n",
    "libs/Krell/include/Krell/Table": "#include <QelKrell/Counters>\n#include <Krell/KrellMem>\n",
    "collection/Krell/KrellMem": "#include <Dov/SharedMem>\n",
    "src-includes/QelKrell/Counters": "#include <Qel/Types>\n",
    "src-includes/QelKrell/Exception": "#include <Qel/Entity>\n",
    "src-includes/QelKrell/Platform": "#include <QelKrell/Exception>\n",
    "src-includes/QelKrell/KrellMount": "#include <QelKrell/Platform>\n",
    "values/a.h": "",
    "values/a.cpp": '#include <Krell/Table>\n#include "a.h"\n#include "values/a.h"\n',
    "tests/qel/ATest.cpp": "#include <gtest/gtest.h>\n#include <QelKrell/KrellMount>\n",
}


class LayersCheck(unittest.TestCase):
    def setUp(self):
        with open(os.path.join(HERE, "layers.txt"), encoding="utf-8") as file:
            self.table = layers.Layers(file.read())

    def check(self, changes):
        with tempfile.TemporaryDirectory() as root:
            for path, text in {**TREE, **changes}.items():
                os.makedirs(os.path.join(root, os.path.dirname(path)), exist_ok=True)
                with open(os.path.join(root, path), "w", encoding="utf-8") as file:
                    file.write(text)
            return layers.check(root, self.table)

    def refused(self, path, include, why, lead=""):
        line = lead.count("\n") + 1
        self.assertEqual(self.check({path: f"{lead}#include <{include}>\n"}),
                         [f"{path}:{line}: #include of {include}: {why}"])

    def test_clean_tree_passes(self):
        self.assertEqual(self.check({}), [])

    def test_upward_includes_are_refused(self):
        self.refused("libs/Qel/src/a.cpp", "Dov/SharedMem", "Qel may not include Dov", "\n\n")
        self.refused("libs/Norvo/src/a.cpp", "Dov/SharedMem", "Norvo may not include Dov")
        self.refused("collection/Krell/A", "Krell/Table", "collection may not include Krell")
        self.refused("libs/Krell/src/a.cpp", "QelKrell/Exception", "Krell may not include values")
        self.refused("values/b.cpp", "QelKrell/Platform", "values may not include platform")
        self.refused("values/b.cpp", "Dov/SharedMem", "values may not include Dov")
        self.refused("platform/b.cpp", "QelKrell/KrellMount", "platform may not include mount")

    def test_collection_library_sees_little_of_the_framework(self):
        only = "Krell may include of Qel only Qel/Assert, Qel/String8, Qel/Trace, Qel/Types"
        self.refused("libs/Krell/src/a.cpp", "Qel/Entity", only)

    def test_plain_data_sees_only_number_types(self):
        self.refused("src-includes/QelKrell/MountStatus", "Qel/Entity",
                     "data may include of Qel only Qel/Types")

    def test_quoted_and_indented_includes_count(self):
        found = self.check({"libs/Qel/src/a.cpp": '  #  include "values/a.h"\n'})
        self.assertEqual(found, ["libs/Qel/src/a.cpp:1: #include of values/a.h: "
                                 "Qel may not include values"])

    def test_comments_and_literals_do_not_count(self):
        self.assertEqual(self.check({
            "libs/Qel/src/a.cpp": '/*\n#include <Dov/SharedMem>\n*/\n// #include <values/a.h>\n'
                                  'const char* t = R"(\n#include <Dov/SharedMem>\n)";\n',
        }), [])

    def test_missing_and_foreign_headers_are_refused(self):
        self.refused("mount/a.cpp", "QelKrell/Gone", "no such header")
        self.refused("mount/a.cpp", "gtest/gtest.h",
                     "neither ours nor of the standard library or the system")

    def test_every_header_has_a_layer(self):
        self.assertEqual(self.check({"src-includes/QelKrell/New": ""}),
                         ["src-includes/QelKrell/New:1: is in no layer of layers.txt"])

    def test_table_with_an_unknown_layer_is_refused(self):
        with self.assertRaises(ValueError):
            layers.Layers("layer a: a\na -> b\n")
        with self.assertRaises(ValueError):
            layers.Layers("layer a: a\na - a\n")


if __name__ == "__main__":
    unittest.main()
