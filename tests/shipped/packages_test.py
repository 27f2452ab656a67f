"""Goal: who installs the packages has everything that a host of their own needs.

Method: the packages are made and installed below an empty folder, by a package manager that knows of this machine's
other packages; a small host that knows nothing of this tree is built with what lies there, once by CMake and once by
pkg-config, and updates a simulated device with it.
"""
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

from documents_test import links_of
from support import BUILD, CXX, SOURCE, output_of

DATABASE = pathlib.Path("var/lib/dpkg")
FOREIGN = SOURCE / "tests" / "shipped" / "foreign"
IMAGE = bytes(range(256)) * 20


class Root:
    """A folder that packages are installed below. Their dependencies are looked for among this machine's packages,
    which are taken for installed, but for those that are tested."""

    def __init__(self, place, ours):
        self.place = place
        (place / DATABASE / "info").mkdir(parents=True)
        (place / DATABASE / "updates").mkdir()
        packages = (pathlib.Path("/") / DATABASE / "status").read_text().split("\n\n")
        (place / DATABASE / "status").write_text(
            "\n\n".join(package for package in packages if package.split("\n")[0].split(" ")[-1] not in ours))
        # No list of files would be taken for a broken database.
        for name in ["format"] + [path.name for path in (pathlib.Path("/") / DATABASE / "info").glob("*.list")]:
            (place / DATABASE / "info" / name).write_text("1\n" if name == "format" else "")

    def dpkg(self, *words):
        """Whether it goes well, and what it says. Everything is unpacked, whatever this machine leaves out."""
        command = ["dpkg", f"--root={self.place}", "--force-not-root", "--force-unsafe-io", "--path-include=*",
                   f"--log={self.place / DATABASE}/log", *(str(word) for word in words)]
        done = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=240,
                              env={**os.environ, "LC_ALL": "C", "PATH": f"{os.environ['PATH']}:/usr/sbin:/sbin"})
        return done.returncode == 0, done.stdout

    def files(self):
        """All that does not belong to the package manager's own."""
        return sorted(path.relative_to(self.place) for path in self.place.rglob("*")
                      if path.relative_to(self.place).parts[0] != "var")


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = pathlib.Path(tempfile.mkdtemp(prefix="peripheral-"))
        cls.addClassCleanup(shutil.rmtree, cls.work)
        output_of("cpack", "--config", BUILD / "CPackConfig.cmake", "-B", cls.work / "packages",
                  "-D", f"CPACK_INSTALL_CMAKE_PROJECTS={BUILD};PeripheralLoader;ALL;/", cwd=cls.work)
        cls.packages = {path.name.split("_")[0]: path for path in (cls.work / "packages").glob("*.deb")}
        cls.root = cls.work / "root"
        cls.installed, cls.said = Root(cls.root, cls.packages).dpkg("--install", *cls.packages.values())
        assert cls.installed, cls.said
        cls.libraries = next(cls.root.rglob("libPeripheralPlatform.so")).parent
        # As every installation of the foreign host's target would have it.
        cls.environment = {**os.environ, "LD_LIBRARY_PATH": str(cls.libraries)}
        for name in ("host_example", "maintenance_example"):
            output_of("cmake", f"-DDOCUMENT={SOURCE}/docs/INTEGRATORS.md", f"-DNAME={name}.cpp",
                      f"-DOUTPUT={cls.work}/foreign/{name}.cpp", "-P", SOURCE / "cmake/ExtractExample.cmake")
        shutil.copy(FOREIGN / "CMakeLists.txt", cls.work / "foreign")

    def field(self, package, name):
        return output_of("dpkg-deb", "-f", self.packages[package], name).strip()

    def test_there_are_three_that_lean_on_the_first(self):
        self.assertEqual(sorted(self.packages),
                         ["libperipheral-loader", "libperipheral-loader-dev", "peripheral-loader-tools"])
        version = self.field("libperipheral-loader", "Version")
        self.assertIn("libc6 (>=", self.field("libperipheral-loader", "Depends"))
        self.assertEqual(self.field("libperipheral-loader-dev", "Depends"), f"libperipheral-loader (= {version})")
        self.assertIn(f"libperipheral-loader (= {version})", self.field("peripheral-loader-tools", "Depends"))
        self.assertIn("libstdc++6 (>=", self.field("peripheral-loader-tools", "Depends"))
        self.assertIn("libfmt9 (>=", self.field("peripheral-loader-tools", "Depends"))

    def test_nothing_in_them_is_writable_by_others_or_foreign_to_root(self):
        for package in self.packages.values():
            for line in output_of("dpkg-deb", "-c", package).splitlines():
                self.assertRegex(line, r"^[-d]r[w-][x-]r-[x-]r-[x-] root/root ")

    def root_for(self, name):
        return Root(self.work / name, self.packages)

    def test_that_lean_on_one_that_is_not_there_are_refused(self):
        for name in ("peripheral-loader-tools", "libperipheral-loader-dev"):
            done, said = self.root_for(f"only-{name}").dpkg("--install", self.packages[name])
            self.assertFalse(done, said)
            self.assertIn(f"{name} depends on libperipheral-loader (= ", said)

    def test_what_is_installed_is_what_was_packed(self):
        root = self.root_for("compared")
        self.assertEqual(root.dpkg("--install", *self.packages.values())[0], True)
        self.assertEqual(root.dpkg("--verify", *self.packages), (True, ""))
        files = [file for file in root.files() if (root.place / file).is_file()]
        for file in files:
            (root.place / file).write_text("other")
        said = root.dpkg("--verify", *self.packages)[1]
        self.assertEqual(sorted(line.split(" /")[1] for line in said.splitlines()), [str(file) for file in files])

    def test_nothing_is_left_of_them_when_they_go(self):
        root = self.root_for("purged")
        self.assertTrue(root.dpkg("--install", *self.packages.values())[0])
        self.assertGreater(len(root.files()), 40)
        done, said = root.dpkg("--purge", "libperipheral-loader")
        self.assertFalse(done, said)
        self.assertIn("peripheral-loader-tools depends on libperipheral-loader", said)
        self.assertTrue(root.dpkg("--purge", *self.packages)[0])
        self.assertEqual(root.files(), [])

    def test_libraries_are_told_to_the_loader_by_a_trigger_and_nothing_runs_a_script(self):
        for name, package in self.packages.items():
            folder = self.work / "control" / name
            folder.parent.mkdir(exist_ok=True)
            output_of("dpkg-deb", "-e", package, folder)
            control = {file.name: file.read_text() for file in folder.iterdir()}
            self.assertEqual(control.get("triggers"),
                             "activate-noawait ldconfig\n" if name == "libperipheral-loader" else None)
            self.assertEqual(set(control) - {"control", "md5sums", "triggers"}, set())

    def test_documents_find_each_other(self):
        documents = sorted((self.root / "usr/share/doc").rglob("*.md"))
        self.assertGreater(len(documents), 10)
        for document in documents:
            for file, _, target in links_of(document):
                self.assertTrue(file.exists(), f"{document.name}: {target}")

    def binaries(self):
        files = list((self.root / "usr/bin").iterdir()) + list(self.libraries.glob("*.so"))
        self.assertEqual(len(files), 4)
        return files

    def test_no_binary_carries_what_only_a_debugger_reads(self):
        for file in self.binaries():
            self.assertNotRegex(output_of("readelf", "-SW", file), r"\.(symtab|debug_\w+)\b", file.name)

    def test_no_file_names_a_folder_to_search_libraries_in_by_an_absolute_path_or_none(self):
        paths = [path for file in self.binaries()
                 for path in re.findall(r"\((?:RPATH|RUNPATH)\).*\[(.*)\]", output_of("readelf", "-dW", file))]
        self.assertEqual(sorted(paths), ["$ORIGIN", f"$ORIGIN:$ORIGIN/../{self.libraries.relative_to(self.root / 'usr')}"])

    def test_a_user_finds_commands_pages_and_completions(self):
        for name in ("bin/peripheralctl", "bin/bootloader-simulator", "share/man/man1/peripheralctl.1",
                     "share/man/man5/bootloader-scenario.5", "share/bash-completion/completions/peripheralctl",
                     "share/zsh/vendor-completions/_peripheralctl", "share/doc/peripheral-loader-tools/docs/TUTORIAL.md"):
            self.assertTrue((self.root / "usr" / name).exists(), name)

    def test_the_installed_command_finds_its_module(self):
        done = subprocess.run([self.root / "usr/bin/peripheralctl", "prepare", "--set", "updatelist=sanyoxmodem"],
                              text=True, capture_output=True, timeout=30)
        self.assertEqual(done.returncode, 3, done.stderr)
        self.assertIn("xmodemsource-image", done.stderr)
        self.update([self.root / "usr/bin/peripheralctl", "update"], "--set")

    def test_a_foreign_host_by_cmake_updates_a_device(self):
        build = self.work / "by-cmake"
        output_of("cmake", "-S", self.work / "foreign", "-B", build, f"-DCMAKE_CXX_COMPILER={CXX}",
                  f"-DCMAKE_PREFIX_PATH={self.root}/usr")
        output_of("cmake", "--build", build)
        module = re.search(r"module: (.*)", (build / "module.txt").read_text())[1]
        self.assertEqual(pathlib.Path(module), self.libraries / "libPeripheralLoader.so")
        self.update([build / "host_example", module])
        done = subprocess.run([build / "maintenance_example"], text=True, capture_output=True, timeout=30,
                              env=self.environment)
        self.assertEqual(done.returncode, 2, done.stderr)

    def find_package(self, request):
        """Whether a project that asks for the package so can be configured, and what CMake says, in one line."""
        project = pathlib.Path(tempfile.mkdtemp(dir=self.work))
        (project / "CMakeLists.txt").write_text("cmake_minimum_required(VERSION 3.25)\nproject(Asking LANGUAGES NONE)\n"
                                                f"find_package(PeripheralLoader {request})\n"
                                                'message("found: ${PeripheralLoader_FOUND}")\n')
        done = subprocess.run(["cmake", "-S", project, "-B", project / "build", f"-DCMAKE_PREFIX_PATH={self.root}/usr"],
                              text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=240)
        return done.returncode == 0, " ".join(done.stdout.split())

    def test_cmake_tells_who_asks_for_an_unknown_component_which_there_are(self):
        done, said = self.find_package("REQUIRED COMPONENTS Platform Plattform")
        self.assertFalse(done, said)
        self.assertIn("There are the components Headers, Platform and Infrastructure. Asked for: Platform;Plattform.", said)
        for request in ("REQUIRED", "REQUIRED COMPONENTS Headers Platform Infrastructure",
                        "REQUIRED OPTIONAL_COMPONENTS Plattform"):
            done, said = self.find_package(request)
            self.assertTrue(done, said)
            self.assertIn("found: 1", said)

    def test_cmake_tells_who_asks_for_another_version_which_is_there(self):
        version = self.field("libperipheral-loader", "Version")
        major, minor, patch = (int(number) for number in version.split("."))
        for wanted in ("0.0", f"{major}.{minor + 1}", f"{major + 1}.{minor}", f"{major}.{minor}.{patch + 1}", "9 EXACT"):
            done, said = self.find_package(f"{wanted} REQUIRED")
            self.assertFalse(done, said)
            self.assertRegex(said, rf'requested (exact )?version "{wanted.split()[0]}"')
            self.assertIn(f"version: {version}", said)
        self.assertTrue(self.find_package(f"{major}.{minor} REQUIRED")[0])

    def test_a_foreign_host_by_pkg_config_updates_a_device(self):
        environment = {**os.environ, "PKG_CONFIG_LIBDIR": str(self.libraries / "pkgconfig")}
        flags = output_of("pkg-config", "--cflags", "--libs", "peripheral-loader", env=environment).split()
        module = output_of("pkg-config", "--variable=module", "peripheral-loader", env=environment).strip()
        host = self.work / "by-pkg-config"
        output_of(CXX, "-std=c++17", self.work / "foreign/host_example.cpp", "-o", host, *flags)
        self.update([host, module])

    def update(self, host, before_each_property=None):
        """Has a host update a simulated device, and looks into the device's memory."""
        image, port, flash = (self.work / name for name in ("image", "port", "flash"))
        image.write_bytes(IMAGE)
        properties = ["updatelist=sanyoxmodem", f"xmodemsource-image={image}", "xmodemspeed=115200",
                      f"xmodemportname={port}"]
        words = [word for each in properties for word in ([before_each_property] * bool(before_each_property) + [each])]
        simulator = subprocess.Popen([self.root / "usr/bin/bootloader-simulator", "--device", "sanyo", "--baud", "0",
                                      "--once", "--link", port, "--dump-flash", flash], stdout=subprocess.PIPE)
        try:
            self.assertIn(b"port: ", simulator.stdout.readline())
            output_of(*host, *words, env=self.environment)
            self.assertEqual(simulator.wait(20), 0)
        finally:
            simulator.kill()
            simulator.wait()
            simulator.stdout.close()
        self.assertEqual(flash.read_bytes()[:len(IMAGE)], IMAGE)


if __name__ == "__main__":
    unittest.main()
