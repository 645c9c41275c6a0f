# Sourced by the download benchmarks: starts nginx in the foreground on a free loopback
# port, serving $work/html, and sets `port` and `nginx_pid`. The caller's cleanup kills
# "$nginx_pid".
#   start_nginx WORK_DIR
start_nginx() {
  local work=$1
  port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  cat > "$work/nginx.conf" <<CONF
daemon off;
master_process off;
pid $work/nginx.pid;
error_log $work/error.log warn;
events { worker_connections 64; }
http {
    access_log off;
    client_body_temp_path $work/tmp;
    proxy_temp_path $work/tmp;
    fastcgi_temp_path $work/tmp;
    uwsgi_temp_path $work/tmp;
    scgi_temp_path $work/tmp;
    sendfile on;
    server { listen 127.0.0.1:$port; root $work/html; }
}
CONF
  /usr/sbin/nginx -p "$work" -c "$work/nginx.conf" &
  nginx_pid=$!
  for _ in $(seq 100); do curl -s -o /dev/null "http://127.0.0.1:$port/" && break; sleep 0.05; done
}
