#!/usr/bin/env python3
"""Tests of tools/check_layering on small trees built in a temporary directory.

Each case writes a tree that keeps to the layers, breaks it in one way, and checks the exit
status and that the report names the files involved.

Usage: check_layering_test.py PATH_TO_CHECK_LAYERING [unittest arguments]
"""

import os
import subprocess
import sys
import tempfile
import textwrap
import unittest

SCRIPT = None

# A tree that keeps to the layers: each layer includes only itself and the layers below it,
# a unit's files include each other, and a subfolder of the library is a unit of its own.
CLEAN_TREE = {
    "inc/zq/webkeel/string.h": "#pragma once\n",
    "inc/zq/webkeel/string.cpp": '#include "zq/webkeel/string.h"\n',
    "inc/zq/webkeel/assert.h": '#pragma once\n#include "zq/webkeel/string.h"\n',
    "inc/zq/tl/hashmap.h": '#pragma once\n#include "zq/webkeel/string.h"\n',
    "inc/zq/webthreadstorage/threadstatic.h": '#pragma once\n#include "zq/webkeel/assert.h"\n',
    "inc/zq/webutil/zone.h": '#pragma once\n#include "zq/webkeel/string.h"\n',
    "inc/zq/webutil/zone.cpp": textwrap.dedent("""\
        #include "zq/webutil/zone.h"

        #include <vector>

        #include "zq/tl/hashmap.h"
        """),
    "project/weblogger/logger.h": '#pragma once\n#include "zq/webutil/zone.h"\n',
    "project/weblogger/logger.cpp": textwrap.dedent("""\
        #include "weblogger/logger.h"

        #include "weblogger/internal/state.h"
        """),
    "project/weblogger/internal/state.h": '#pragma once\n#include "zq/webkeel/string.h"\n',
}


class CheckLayeringTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.root = self.directory.name
        self.write_tree(CLEAN_TREE)

    def tearDown(self):
        self.directory.cleanup()

    def write_tree(self, files):
        for path, text in files.items():
            full = os.path.join(self.root, path)
            os.makedirs(os.path.dirname(full), exist_ok=True)
            with open(full, "w", encoding="utf-8") as out:
                out.write(text)

    def run_check(self):
        return subprocess.run([sys.executable, SCRIPT, "--root", self.root],
                              capture_output=True, text=True, check=False)

    def assert_fails_naming(self, result, *locations):
        self.assertEqual(result.returncode, 1, result.stdout + result.stderr)
        for location in locations:
            self.assertIn(location, result.stdout)

    def test_clean_tree_passes(self):
        result = self.run_check()
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertIn("no violations", result.stdout)

    def test_includes_within_a_unit_are_fine(self):
        self.write_tree({
            "project/weblogger/writer.h": '#pragma once\n#include "weblogger/writer_impl.h"\n',
            "project/weblogger/writer_impl.h": '#pragma once\n#include "weblogger/writer.h"\n',
            "project/weblogger/writer.cpp": textwrap.dedent("""\
                #include "weblogger/writer.h"
                #include "weblogger/writer_impl.h"
                """),
        })
        result = self.run_check()
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_cycle_between_two_units_fails_and_names_both_files(self):
        self.write_tree({
            "project/weblogger/filter.h": '#pragma once\n#include "weblogger/writer.h"\n',
            "project/weblogger/writer.h": "#pragma once\n",
            "project/weblogger/writer.cpp": textwrap.dedent("""\
                #include "weblogger/writer.h"

                #include "weblogger/filter.h"
                """),
        })
        self.assert_fails_naming(self.run_check(), "project/weblogger/filter.h:2:",
                                 "project/weblogger/writer.cpp:3:")

    def test_cycle_through_a_subfolder_fails(self):
        self.write_tree({
            "project/weblogger/internal/state.h":
                '#pragma once\n#include "zq/webkeel/string.h"\n#include "weblogger/logger.h"\n',
        })
        self.assert_fails_naming(self.run_check(), "project/weblogger/internal/state.h:3:",
                                 "project/weblogger/logger.cpp:3:",
                                 "weblogger/logger -> weblogger/internal/state")

    def test_include_beside_the_file_is_resolved(self):
        self.write_tree({
            "project/weblogger/internal/state.h":
                '#pragma once\n#include "../logger.h"\n',
        })
        self.assert_fails_naming(self.run_check(), "project/weblogger/internal/state.h:2:")

    def test_foundation_including_the_library_fails(self):
        self.write_tree({
            "inc/zq/webutil/zone.cpp": textwrap.dedent("""\
                #include "zq/webutil/zone.h"

                #include "weblogger/logger.h"
                """),
        })
        result = self.run_check()
        self.assert_fails_naming(result, "inc/zq/webutil/zone.cpp:3:")
        self.assertIn("weblogger/logger.h", result.stdout)
        self.assertIn("higher layer weblogger", result.stdout)

    def test_lower_foundation_layer_including_a_higher_one_fails(self):
        self.write_tree({
            "inc/zq/webkeel/assert.h": '#pragma once\n#include "zq/tl/hashmap.h"\n',
        })
        self.assert_fails_naming(self.run_check(), "inc/zq/webkeel/assert.h:2:")

    def test_file_in_no_layer_fails(self):
        self.write_tree({"inc/zq/elsewhere/thing.h": "#pragma once\n"})
        self.assert_fails_naming(self.run_check(), "inc/zq/elsewhere/thing.h:1:")

    def test_public_header_including_an_internal_one_fails(self):
        self.write_tree({
            "project/weblogger/logger.h":
                '#pragma once\n#include "zq/webutil/zone.h"\n#include "weblogger/internal/state.h"\n',
        })
        result = self.run_check()
        self.assert_fails_naming(result, "project/weblogger/logger.h:3:")
        self.assertIn("not installed", result.stdout)

    def test_registry_header_belongs_to_the_writer_unit(self):
        self.write_tree({
            "project/weblogger/logwriter.h": "#pragma once\n",
            "project/weblogger/logwritersman.h":
                '#pragma once\n#include "weblogger/logwriter.h"\n',
            "project/weblogger/logwriter.cpp": textwrap.dedent("""\
                #include "weblogger/logwriter.h"

                #include "weblogger/logwritersman.h"
                """),
        })
        result = self.run_check()
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_the_real_tree_keeps_to_its_layers(self):
        real_root = os.path.dirname(os.path.dirname(os.path.abspath(SCRIPT)))
        result = subprocess.run([sys.executable, SCRIPT, "--root", real_root],
                                capture_output=True, text=True, check=False)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    def test_a_root_without_sources_is_an_error(self):
        with tempfile.TemporaryDirectory() as empty:
            result = subprocess.run([sys.executable, SCRIPT, "--root", empty],
                                    capture_output=True, text=True, check=False)
        self.assertEqual(result.returncode, 2)


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    SCRIPT = sys.argv.pop(1)
    unittest.main()
