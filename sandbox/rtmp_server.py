"""An RTMP server on a board: nginx with Debian's module, at 127.0.0.9:1935."""

NGINX = """daemon off;
master_process off;
pid /tmp/nginx.pid;
load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;
events { worker_connections 64; }
rtmp { server { listen 127.0.0.9:1935; application live { live on; } } }
"""

# The same, but only for publishers with the key "secret"; who asks is in /tmp/auth.log.
NGINX_WITH_KEY = NGINX.replace("live on;", """live on; notify_method get;
    on_publish http://127.0.0.9:8081/publish;""") + """
http {
    access_log /tmp/auth.log;
    client_body_temp_path /tmp/nginx-body; proxy_temp_path /tmp/nginx-proxy;
    fastcgi_temp_path /tmp/nginx-fastcgi; uwsgi_temp_path /tmp/nginx-uwsgi;
    scgi_temp_path /tmp/nginx-scgi;
    server {
        listen 127.0.0.9:8081;
        location / { if ($arg_name != secret) { return 403; } return 200; }
    }
}
"""
