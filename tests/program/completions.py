#!/usr/bin/python3
"""Asks bash, zsh and fish for completions, as a user's key would, and holds the answers against rows typed by hand.
usage: completions.py SOURCE BINARY [SHELL]...    (the tree and its build folder; extender's completion asks the program)

In bash and zsh a key puts all answers into the line, and a second one writes the line to a file: nothing is read off the
screen. fish answers "complete -C"."""
import os
import pty
import select
import subprocess
import sys
import tempfile

RECORDS = "account device-info device-status login upgrade-info upgrade-time"
# What is typed, and what is offered: exactly that, or with "..." that among others.
ROWS = [
    ("cloud_msg ge", "getBindStatus getDevToken getFwList getLogicStatus"),
    ("cloud_msg -", "-h"),
    ("cloud_msg bind oth", ""),
    ("cloud_msg ",
     "alias bind check download factory getBindStatus getDevToken getFwList getLogicStatus kickoff login online"
     " passthrough rmuser setLogicStatus tmp_bind tmp_unbind unbind update ..."),
    ("cloud_store ", "clear dump get set ..."),
    ("cloud_store --", "--help --version"),
    ("cloud_store get ", RECORDS),
    ("cloud_store set ", RECORDS),
    ("cloud_store clear ", RECORDS),
    ("cloud_store get login oth", ""),
    ("cloud_rsa ", "decrypt encrypt public ..."),
    ("cloud_rsa --", "--help --version"),
    ("cloud_image ", "info make ..."),
    ("cloud_image --", "--help --version"),
    ("cloud_image make --", "--payload --size --version"),
    ("cloud_image make --payload oth", "other.bin"),
    ("cloud_image make -o oth", "other.bin"),
    ("cloud_image make --size oth", ""),
    ("cloud_image info --", "--json"),
    ("cloud_image info oth", "other.bin"),
    ("kxcc-tap --", "--help --limit --restore --socket --version --wait"),
    ("kxcc-tap oth", "other.bin"),
    ("kxcc-tap --socket oth", "other.bin"),
    ("kxcc-tap --limit oth", ""),
    ("extender ", "check cost demo explain run shell show sweep web ..."),
    ("extender sw", "sweep"),
    ("extender run --sc", "--scenario"),
    ("extender run --scenario oth", "other.bin"),
    ("extender run --", "--cloud --fast --flash --help --journal --name --replay --scenario ..."),
    ("extender run --replay --fast oth", "other.bin"),
    ("extender sweep --faults ", "broker calls files kills memory syscalls"),
    ("extender mask oth", "other.bin"),
    ("extender show oth", "other.bin"),
    ("extender run -- cloud_ima", "cloud_image"),
    ("extender run -- cloud_image info oth", "other.bin"),
]


class Terminal:
    """A shell on a terminal of its own, which runs as long as its owner."""

    def __init__(self, program, setup, folder, environment):
        self.answer = os.path.join(folder, ".answer")
        os.mkfifo(self.answer)
        self.fifo = os.open(self.answer, os.O_RDWR | os.O_NONBLOCK)
        self.child, self.terminal = pty.fork()
        if self.child == 0:
            os.chdir(folder)
            os.execvpe(program[0], program, environment)
        os.write(self.terminal, setup.encode() + b'\necho ready >"$ANSWER"\n')
        self.read()

    def read(self):
        got = b""
        while not got.endswith(b"\n"):
            ready, _, _ = select.select([self.fifo, self.terminal], [], [], 60)
            if not ready:
                raise SystemExit("completions: the shell does not answer")
            if self.terminal in ready:
                os.read(self.terminal, 65536)  # the screen is not looked at
            if self.fifo in ready:
                got += os.read(self.fifo, 65536)
        return got.decode().rstrip("\n")

    def ask(self, line):
        os.write(self.terminal, line.encode() + b"\x18a\x18d")  # all answers into the line; the line to the file
        return self.read()

    def close(self):
        os.close(self.terminal)
        os.waitpid(self.child, 0)


BASH = r"""
bind 'set enable-bracketed-paste off' 'set bell-style none'
for file in "$SOURCE"/completions/*.bash; do source "$file"; done
_dump() { printf '%s\n' "$READLINE_LINE" >"$ANSWER"; READLINE_LINE=; }
bind '"\C-xa": insert-completions'
bind -x '"\C-xd": _dump'
"""
ZSH = r"""
unsetopt zle_bracketed_paste beep; unset zle_bracketed_paste
fpath=("$SOURCE/completions" $fpath)
autoload -Uz compinit && compinit -u -D
zstyle ':completion:*' completer _all_matches _complete
zstyle ':completion:*' insert true
zle -C all complete-word _generic
zstyle ':completion:all:*' completer _all_matches _complete
zstyle ':completion:*' menu no
_dump() { print -r -- "$BUFFER" >"$ANSWER"; BUFFER=; }
zle -N _dump
bindkey '^Xa' all '^Xd' _dump
"""
SHELLS = {"bash": (["bash", "--norc", "--noprofile", "-i"], BASH), "zsh": (["zsh", "-f", "-i"], ZSH)}


def fish(line, folder, environment):
    command = 'for file in $SOURCE/completions/*.fish; source $file; end; complete -C "$LINE"'
    out = subprocess.run(["fish", "--no-config", "-c", command], cwd=folder, env={**environment, "LINE": line}, text=True,
                         check=True, stdout=subprocess.PIPE).stdout
    return sorted({answer.split("\t")[0] for answer in out.splitlines()})


def added(line, answered):
    """The words of the line after the key, without those that had been typed; an unchanged last word is no answer."""
    kept = line.rsplit(" ", 1)[0].split()
    words = answered.split()
    if words[:len(kept)] != kept:
        return ["(the line became: %s)" % answered]
    return sorted(set(words[len(kept):]) - {line.rsplit(" ", 1)[1]})


def main():
    source, binary = sys.argv[1:3]
    programs = {name[:-5] for name in os.listdir(os.path.join(source, "completions")) if name.endswith(".bash")}
    failed = programs != {line.split()[0] for line, _ in ROWS}
    if failed:
        print("completions: there are programs that no row asks")
    with tempfile.TemporaryDirectory() as folder:
        open(os.path.join(folder, "other.bin"), "w", encoding="utf-8").close()
        environment = {"PATH": os.path.abspath(binary) + ":/usr/bin:/bin", "HOME": folder, "TERM": "xterm", "LC_ALL": "C.UTF-8",
                       "COLUMNS": "500", "SOURCE": os.path.abspath(source), "ANSWER": os.path.join(folder, ".answer")}
        for shell in sys.argv[3:] or ["bash", "zsh", "fish"]:
            if shell == "fish":
                answers = [fish(line, folder, environment) for line, _ in ROWS]
            else:
                terminal = Terminal(*SHELLS[shell], folder, environment)
                answers = [added(line, terminal.ask(line)) for line, _ in ROWS]
                terminal.close()
                os.close(terminal.fifo)
                os.unlink(terminal.answer)
            bad = 0
            for (line, expected), got in zip(ROWS, answers):
                wanted = set(expected.split()) - {"..."}
                if not wanted <= set(got) or ("..." not in expected and wanted != set(got)):
                    print(f'{shell}: "{line}": offered: {" ".join(got)}; expected: {expected}')
                    bad += 1
            print(f"{shell}: {len(ROWS) - bad} of {len(ROWS)} lines completed as they should be")
            failed += bad
    return failed != 0


sys.exit(main())
