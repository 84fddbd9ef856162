"""The install tree and the .deb that cpack makes of it: the files, lintian, and an example host
built through pkg-config and find_package(Brakwell) against the unpacked package, run inside its
fixturesim."""
import os, shutil, subprocess  # noqa: E401
from pathlib import Path

BUILD = os.environ["BRAKWELL_BINARY_DIR"]
ENV = {**os.environ, "ASAN_OPTIONS": "verify_asan_link_order=0"}  # hosts of a sanitized build
HOST = Path(__file__).resolve().parents[1] / "examples/list_fixture.c"  # strict C99
PROJECT = f"""cmake_minimum_required(VERSION 3.16)
project(host C)
find_package(Brakwell 4.1 REQUIRED)
add_executable(host {HOST})
target_link_libraries(host PRIVATE Brakwell::Brakwell)
"""


def run(*command, env=ENV, **options):
    ran = subprocess.run(command, capture_output=True, text=True, timeout=600, env=env, **options)
    assert ran.returncode == 0, f"{command}: {ran.stdout}{ran.stderr}"
    return ran.stdout


def test_package_holds_the_install_tree_and_hosts_build_and_run_against_it(tmp_path):
    run("cpack", "-G", "DEB", "-B", tmp_path, cwd=BUILD)
    (deb,) = tmp_path.glob("brakwell_4.1.0_*.deb")
    listed = sorted(line.split()[5].lstrip(".") for line in run("dpkg-deb", "-c", deb)
                    .splitlines() if not line.startswith("d"))
    run("cmake", "--install", BUILD, "--prefix", "/usr", env={**ENV, "DESTDIR": tmp_path / "stage"})
    stage = tmp_path / "stage"
    assert listed == sorted(f"/{p.relative_to(stage)}" for p in stage.rglob("*") if not p.is_dir())
    # Files no host below uses; udev and sysusers files go to /usr/lib whatever the prefix.
    assert {f"/usr/{f}" for f in (
        "lib/udev/rules.d/60-brakwell.rules", "lib/udev/rules.d/70-brakwell-access.rules",
        "lib/sysusers.d/brakwell.conf", "share/doc/brakwell/copyright",
        "share/man/man1/fixturectl.1.gz", "share/man/man1/fixturesim.1.gz",
        "share/bash-completion/completions/fixturectl",
        "share/bash-completion/completions/fixturesim")} - set(listed) == set()
    control = run("dpkg-deb", "-f", deb, "Package", "Version", "Depends")
    assert control.startswith("Package: brakwell\nVersion: 4.1.0\n") and "libusb-1.0-0" in control
    if shutil.which("lintian"):
        lint = subprocess.run(["lintian", deb], capture_output=True, text=True, check=False)
        assert [line for line in lint.stdout.splitlines() if line.startswith("E:")] == []

    # pkg-config from a tree moved after unpacking, then find_package where it lies.
    usr, moved = tmp_path / "root/usr", tmp_path / "moved"
    run("dpkg-deb", "-x", deb, tmp_path / "root")
    assert (usr / "lib/libBrakwell.so.4").is_symlink()
    (tmp_path / "CMakeLists.txt").write_text(PROJECT)
    usr.rename(moved)
    flags = run("pkg-config", "--cflags", "--libs", "brakwell",
                env={**ENV, "PKG_CONFIG_PATH": f"{moved}/lib/pkgconfig"}).split()
    assert flags[0].startswith(f"-I{moved}/")
    run("cc", "-std=c99", "-pedantic", "-Wall", "-Werror", HOST, *flags,
        f"-Wl,-rpath,{usr}/lib", "-o", "host-pc", cwd=tmp_path)
    moved.rename(usr)
    run("cmake", "-S", tmp_path, "-B", tmp_path / "build", f"-DCMAKE_PREFIX_PATH={usr}")
    run("cmake", "--build", tmp_path / "build")
    for host in (tmp_path / "host-pc", tmp_path / "build/host"):
        listed = run(usr / "bin/fixturesim", "--quiet", "--", host).splitlines()
        assert listed[0] == "Velmora Technologies fixture: 2 well(s), 8 sites", listed
        assert listed[8] == "site 8  well 2  board /dev/tty.usbmodemVEL_08_A1  console " \
            "/dev/cu.usbserial-RT000008"
    ctl = run(usr / "bin/fixturesim", "--quiet", "--", usr / "bin/fixturectl", "--json", "start")
    assert '"slots":8' in ctl
