"""The README's path from a fresh clone to a program: the install block run as it stands in a
clone of the repository's committed state, into a temporary prefix, then the README's
greeter built with the README's pkg-config lines and started without LD_LIBRARY_PATH.

The README marks its blocks with "<!-- readme: NAME -->". The install block's lines
"prefix=..." and "jobs=..." are the only ones changed: the prefix becomes the temporary one
and the jobs the number given in TEZA_README_JOBS (default 2).
"""

import os
import re
import shutil
import subprocess
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))

BLOCK = re.compile(r"<!-- readme: ([\w.-]+) -->\n```\w*\n(.*?)```\n", re.S)


def readme_blocks(readme):
    with open(readme, encoding="utf-8") as f:
        return dict(BLOCK.findall(f.read()))


def run(command, cwd, env=None, shell=False):
    result = subprocess.run(command, cwd=cwd, env=env, shell=shell, capture_output=True,
                            text=True, executable="/bin/bash" if shell else None)
    if result.returncode != 0:
        raise AssertionError(
            f"failed ({result.returncode}): {command}\n{result.stdout[-6000:]}\n"
            f"{result.stderr[-6000:]}"
        )
    return result


class ReadmeInstallTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="teza-readme-")
        self.addCleanup(shutil.rmtree, self.tmp, ignore_errors=True)
        self.env = dict(os.environ)
        # What the program finds, it finds through the flags of the README alone.
        for name in ("LD_LIBRARY_PATH", "PKG_CONFIG_PATH", "CMAKE_PREFIX_PATH"):
            self.env.pop(name, None)
        # The block builds the whole project; with ccache at hand, CMake uses it (the
        # environment's launcher variables), and paths under the temporary directory are
        # hashed relative to it, so that a second run compiles almost nothing.
        if shutil.which("ccache"):
            self.env.setdefault("CMAKE_C_COMPILER_LAUNCHER", "ccache")
            self.env.setdefault("CMAKE_CXX_COMPILER_LAUNCHER", "ccache")
            self.env["CCACHE_BASEDIR"] = self.tmp
            self.env["CCACHE_NOHASHDIR"] = "1"

    def test_install_block_from_a_fresh_clone_then_pkg_config_program(self):
        clone = os.path.join(self.tmp, "clone")
        run(["git", "clone", "--quiet", ROOT, clone], cwd=self.tmp)
        blocks = readme_blocks(os.path.join(clone, "README.md"))
        for name in ("install", "greeter.teza", "main.cpp", "pkg-config"):
            self.assertIn(name, blocks, f"the README has no block marked {name}")

        prefix = os.path.join(self.tmp, "prefix")
        jobs = os.environ.get("TEZA_README_JOBS", "2")
        install, prefixes = re.subn(r"^prefix=.*$", f"prefix='{prefix}'", blocks["install"],
                                    flags=re.M)
        install, jobs_lines = re.subn(r"^jobs=.*$", f"jobs={jobs}", install, flags=re.M)
        self.assertEqual((prefixes, jobs_lines), (1, 1),
                         "the install block sets prefix and jobs once each")
        run("set -euo pipefail\n" + install, cwd=clone, env=self.env, shell=True)
        for installed in ("lib/pkgconfig/autoteza.pc", "bin/teza-gen", "bin/tezad",
                          "include/autoteza/TezaWrapper.h"):
            self.assertTrue(os.path.exists(os.path.join(prefix, installed)), installed)

        app = os.path.join(self.tmp, "app")
        os.makedirs(app)
        for name in ("greeter.teza", "main.cpp"):
            with open(os.path.join(app, name), "w", encoding="utf-8") as f:
                f.write(blocks[name])
        env = dict(self.env, prefix=prefix)
        result = run("set -euo pipefail\n" + blocks["pkg-config"], cwd=app, env=env, shell=True)
        # The greeter started and made its call (which fails while nothing answers on 8080).
        self.assertTrue(result.stdout.strip(), result.stderr)

        greeter = os.path.join(app, "greeter")
        dynamic = run(["readelf", "-d", greeter], cwd=app).stdout
        self.assertRegex(dynamic, r"R(UN)?PATH.*" + re.escape(os.path.join(prefix, "lib")))

        # The same lines without the run-time path build a program that does not start,
        # unless the system's library directories hold the libraries as well.
        if "libautotezagenerator" in run(["ldconfig", "-p"], cwd=app).stdout:
            return
        rpath = '-Wl,-rpath,"$(pkg-config --variable=libdir autoteza)"'
        self.assertIn(rpath, blocks["pkg-config"])
        without = blocks["pkg-config"].replace(rpath, "").replace("-o greeter", "-o bare")
        without = without.replace("./greeter", "./bare")
        result = subprocess.run("set -euo pipefail\n" + without, cwd=app, env=env, shell=True,
                                executable="/bin/bash", capture_output=True, text=True)
        self.assertNotEqual(result.returncode, 0, result.stdout)
        self.assertIn("error while loading shared libraries", result.stderr)


if __name__ == "__main__":
    unittest.main()
