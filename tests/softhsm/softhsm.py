#!/usr/bin/python3

import json
import os
import pathlib
import subprocess
import tempfile

USER_PIN, SO_PIN = "user-pin-4711", "officer-pin-42"


def run(*command, check=True, env=None, text=True):
    done = subprocess.run([str(c) for c in command], capture_output=True, text=text, env=env)
    if check and done.returncode != 0:
        raise RuntimeError(f"{command}: exit {done.returncode}\n{done.stdout}{done.stderr}")
    return done


def openssl(*arguments, **kwargs):
    return run("openssl", *arguments, **kwargs)


class Token:
    def __init__(self, tool, module):
        self.tool, self.module = tool, module
        self.holder = tempfile.TemporaryDirectory(prefix="mervane-token-")
        self.folder = pathlib.Path(self.holder.name)
        (self.folder / "tokens").mkdir()
        config = self.folder / "softhsm2.conf"
        config.write_text(f"directories.tokendir = {self.folder / 'tokens'}\nlog.level = ERROR\n")
        os.environ.pop("OPENSSL_CONF", None)
        self.env = dict(os.environ, SOFTHSM2_CONF=str(config), MERVANE_P11_MODULE=module,
                        USER_PIN=USER_PIN, SO_PIN=SO_PIN)

    def init(self, label="test"):
        run("softhsm2-util", "--init-token", "--free", "--label", label, "--pin", USER_PIN,
            "--so-pin", SO_PIN, env=self.env)

    def put_cert(self, der, id_, label):
        self.pkcs11_tool("--login", "--pin", USER_PIN, "--write-object", der, "--type", "cert",
                         "--id", id_, "--label", label)

    def put_key(self, pem, id_, label, token="test"):
        run("softhsm2-util", "--import", pem, "--token", token, "--label", label, "--id", id_,
            "--pin", USER_PIN, env=self.env)

    def pkcs11_tool(self, *arguments, **kwargs):
        return run("pkcs11-tool", "--module", self.module, *arguments, env=self.env, **kwargs)

    def p11(self, *arguments, check=True):
        return run(self.tool, *arguments, check=check, env=self.env)

    def p11_json(self, *arguments):
        return json.loads(self.p11(*arguments, "--json").stdout)


failures = []


def expect(ok, what):
    if not ok:
        failures.append(what)
        print("FAILED:", what)


def equal(got, wanted, what):
    expect(got == wanted, f"{what}: {got!r}, expected {wanted!r}")


def check_schema(document, name, folder=pathlib.Path(__file__).resolve().parents[2] / "docs/schema"):
    """The document against FOLDER/NAME.schema.json."""
    import jsonschema
    schema = json.loads((folder / f"{name}.schema.json").read_text())
    for error in jsonschema.Draft202012Validator(schema).iter_errors(document):
        expect(False, f"{name}: {list(error.absolute_path)}: {error.message}")
