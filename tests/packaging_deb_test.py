"""The .deb that cpack makes: what it holds, that it unpacks into a working tree, lintian."""
import os, shutil, subprocess  # noqa: E401

BUILD = os.environ["BRAKWELL_BINARY_DIR"]


def run(*command, **options):
    return subprocess.run(command, capture_output=True, text=True, check=True, timeout=600,
                          **options).stdout


def files_under(root):
    return sorted("/" + os.path.relpath(os.path.join(d, f), root)
                  for d, _, names in os.walk(root) for f in names)


def test_the_package_holds_the_install_tree_and_unpacks_into_a_working_one(tmp_path):
    run("cpack", "-G", "DEB", "-B", str(tmp_path), cwd=BUILD)
    (deb,) = tmp_path.glob("brakwell_4.1.0_*.deb")
    listed = sorted(line.split()[5].lstrip(".") for line in run("dpkg-deb", "-c", str(deb))
                    .splitlines() if not line.startswith("d"))
    run("cmake", "--install", BUILD, "--prefix", "/usr", env={**os.environ,
                                                               "DESTDIR": str(tmp_path / "stage")})
    assert listed == files_under(tmp_path / "stage")  # the files the install test checks
    control = run("dpkg-deb", "-f", str(deb), "Package", "Version", "Depends")
    assert control.startswith("Package: brakwell\nVersion: 4.1.0\n") and "libusb-1.0-0" in control

    run("dpkg-deb", "-x", str(deb), str(tmp_path / "root"))
    assert "Usage: fixturectl" in run(str(tmp_path / "root/usr/bin/fixturectl"), "--help")
    if shutil.which("lintian"):
        lint = subprocess.run(["lintian", str(deb)], capture_output=True, text=True, check=False)
        assert [line for line in lint.stdout.splitlines() if line.startswith("E:")] == []
