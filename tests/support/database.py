"""A throw-away database server of tests/servers, and questions to it."""

import subprocess

import backup2_test


class Database:
    """A server of the kind "mariadb" or "postgres"; `settings` is what its script has printed."""

    def __init__(self, kind, settings):
        self.kind, self.settings = kind, settings
        self.type = "mysql" if kind == "mariadb" else "postgresql"

    def sql(self, text, database=""):
        """Runs statements as the administrator; what they print, one line a row."""
        if self.kind == "mariadb":
            argv = ["mariadb", "--defaults-file=" + self.settings["options"], "-N", "-r",
                    "--default-character-set=utf8mb4", database]
        else:
            argv = ["psql", "-X", "-q", "-A", "-t", "-w", "-v", "ON_ERROR_STOP=1", "-U", "admin",
                    "-h", self.settings["socket"], "-p", "5432", "-d", database or "postgres"]
        env = backup2_test.environment(PGPASSFILE=self.settings.get("pgpass", "/dev/null"))
        done = subprocess.run(argv, input=text.encode(), env=env, capture_output=True, check=False)
        if done.returncode:
            raise AssertionError(done.stderr.decode(errors="replace"))
        return done.stdout.decode(errors="surrogateescape").strip()
