# Shared by the two S3 servers: several processes of one server, the bucket and what is
# printed. Source it after lib.sh.
# shellcheck shell=bash

port_open() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# daemon NAME COMMAND...: starts it in the background; its id goes into WORK/pid and LAST_PID.
daemon() {
  local name=$1
  shift
  "$@" </dev/null >"$WORK/data/$name.out" 2>&1 &
  LAST_PID=$!
  echo "$LAST_PID" >>"$WORK/pid"
}

# All daemons in the reverse order of their start.
stop_server() {
  local pid
  for pid in $(tac "$WORK/pid" 2>/dev/null); do end_process "$pid"; done
  [ ! -s "$WORK/socket_dir" ] || rm -rf "$(cat "$WORK/socket_dir")"
  rm -rf "$WORK/pid" "$WORK/socket_dir" "$WORK/data"
}

# s3_ready ENDPOINT REGION ACCESS_KEY SECRET_KEY BUCKET: makes the bucket and prints how to reach it.
s3_ready() {
  curl -sS --fail-with-body --max-time 30 --retry 10 --retry-delay 1 -o "$WORK/data/bucket.out" -K - <<END ||
url = "${1%%//*}//${3/:/%3A}:$4@${1#*//}/$5"
request = PUT
aws-sigv4 = "aws:amz:$2:s3"
header = "x-amz-content-sha256: UNSIGNED-PAYLOAD"
END
    { cat "$WORK/data/bucket.out" >&2; stop_server; die "cannot make the bucket"; }
  local json
  json=$(printf '{"endpoint":"%s","region":"%s","bucket":"%s","access_key":"%s","secret_key":"%s","path_style":"yes"}' \
    "$1" "$2" "$5" "$3" "$4")
  settings <<END
endpoint=$1
region=$2
bucket=$5
access_key=$3
secret_key=$4
credential=$(base64 -w0 <<<"$json")
END
}
