# Shared by the FTP servers: one user, locked into a folder, and a certificate. Source it after
# lib.sh. Options: FTP_TLS=0 never (default), 1 when the client wants it, 2 required, 3 from the start;
# FTP_BIND=::1 instead of 127.0.0.1.
# Prints host=, port=, user=, password=, root= (the user's folder) and ca=.
# shellcheck shell=bash
# shellcheck disable=SC2034  # the scripts read them
OWNER=nobody
TLS=${FTP_TLS:-0} BIND=${FTP_BIND:-127.0.0.1} FTP_USER=backup PASSIVE_PORTS=40

# prepare_ftp: ROOT, ID (the account's uid:gid), HASH of the password, PORT, PASSIVE and the certificate.
prepare_ftp() {
  need openssl
  ROOT=$WORK/data/root ID=$(id -u $OWNER):$(id -g $OWNER)
  HASH=$(openssl passwd -6 -stdin <<<"$PASSWORD")
  chmod 755 "$WORK/data"
  mkdir "$ROOT" && chown "$ID" "$ROOT"
  take_ports
  PASSIVE=$((PORT + 1))
  openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 30 -subj /CN=localhost \
    -addext 'subjectAltName=DNS:localhost,IP:127.0.0.1,IP:::1' \
    -keyout "$WORK/data/tls.key" -out "$WORK/data/tls.crt" 2>"$WORK/log"
  (umask 077 && cat "$WORK/data/tls.key" "$WORK/data/tls.crt" >"$WORK/data/tls.pem")
  chmod 600 "$WORK/data/tls.key"
}

# With TLS from the start the client speaks first.
greets() { (exec 3<>"/dev/tcp/$BIND/$PORT" && { [ "$TLS" = 3 ] || { read -r -t 5 line <&3 && [[ $line == 220* ]]; }; }); }

# run_ftp COMMAND...: starts it in the background and prints how to reach it.
run_ftp() {
  # A run that nobody stops ends by itself.
  timeout 3600 "$@" </dev/null >>"$WORK/log" 2>&1 &
  echo $! >"$WORK/pid"
  wait_until "$(cat "$WORK/pid")" 20 "$WORK/log" greets
  settings <<END
host=$BIND
port=$PORT
user=$FTP_USER
password=$PASSWORD
root=$ROOT
ca=$WORK/data/tls.crt
END
}
