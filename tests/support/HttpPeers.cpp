#include "support/HttpPeers.h"

namespace support {

namespace {

constexpr char kNginxConfiguration[] = R"(
daemon off;
master_process off;
pid {dir}/pid;
error_log stderr;
events {}
http {
  access_log off;
  client_body_temp_path {dir}/body;
  proxy_temp_path {dir}/proxy;
  fastcgi_temp_path {dir}/fastcgi;
  uwsgi_temp_path {dir}/uwsgi;
  scgi_temp_path {dir}/scgi;
  server {
    listen 127.0.0.1:{port};
    listen 127.0.0.1:{tlsPort} ssl;
    ssl_certificate {dir}/certificate.pem;
    ssl_certificate_key {dir}/key.pem;
    location = /ok { return 200 "fine"; }
    location = /moved { return 302 /ok; }
    location = /missing { return 404; }
    location = /error { return 500; }
    location = /bad-gateway { return 502; }
    location = /closed { return 444; }
    location = /slow { limit_rate 3; root {dir}; }
  }
}
)";

constexpr char kSquidConfiguration[] = R"(
http_port 127.0.0.1:{port}
pid_filename none
cache_log {dir}/cache.log
access_log none
cache deny all
coredump_dir {dir}
netdb_filename none
pinger_enable off
visible_hostname peer
dns_nameservers 127.0.0.1
acl forbidden urlpath_regex ^/forbidden
http_access deny forbidden
)";
constexpr char kSquidBasic[] = R"(
auth_param basic program /usr/lib/squid/basic_ncsa_auth {dir}/passwords
acl known proxy_auth REQUIRED
http_access allow known
http_access deny all
)";
constexpr char kSquidDigest[] = R"(
auth_param digest program /usr/lib/squid/digest_file_auth {dir}/passwords
auth_param digest realm peer
acl known proxy_auth REQUIRED
http_access allow known
http_access deny all
)";

constexpr char kTinyproxyConfiguration[] = R"(
Listen 127.0.0.1
Port {port}
Timeout 60
MaxClients 20
LogFile "{dir}/tinyproxy.log"
)";

std::string SquidAccess(ProxyAccess access) {
  if (access == ProxyAccess::kBasic) return kSquidBasic;
  return access == ProxyAccess::kDigest ? kSquidDigest : "http_access allow all\n";
}

// As the helper of the method reads them: hashed for Basic, plain for Digest.
std::string SquidPasswords(ProxyAccess access) {
  constexpr char kHashed[] = "$apr1$zelpeers$tJTa2y7qjPjmFQd9HD4BF1";  // of kProxyPassword
  return std::string(kProxyUser) + ":" +
         (access == ProxyAccess::kBasic ? kHashed : kProxyPassword) + "\n";
}

}  // namespace

std::unique_ptr<Peer> StartNginx(const Certificate& certificate) {
  return std::make_unique<Peer>(
      std::vector<std::string>{"/usr/sbin/nginx", "-p", "{dir}", "-e", "stderr", "-c",
                               "{dir}/nginx.conf"},
      std::map<std::string, std::string>{{"nginx.conf", kNginxConfiguration},
                                         {"certificate.pem", certificate.certificate},
                                         {"key.pem", certificate.key},
                                         {"slow", std::string(10800, 's')}});
}

std::unique_ptr<Peer> StartSquid(ProxyAccess access) {
  return std::make_unique<Peer>(
      std::vector<std::string>{"/usr/sbin/squid", "-N", "-f", "{dir}/squid.conf"},
      std::map<std::string, std::string>{{"squid.conf", kSquidConfiguration + SquidAccess(access)},
                                         {"passwords", SquidPasswords(access)}});
}

std::unique_ptr<Peer> StartTinyproxy(ProxyAccess access, const std::string& allowed) {
  std::string configuration = kTinyproxyConfiguration + ("Allow " + allowed + "\n");
  if (access == ProxyAccess::kBasic) {
    configuration += std::string("BasicAuth ") + kProxyUser + " " + kProxyPassword + "\n";
  }
  return std::make_unique<Peer>(
      std::vector<std::string>{"/usr/bin/tinyproxy", "-d", "-c", "{dir}/tinyproxy.conf"},
      std::map<std::string, std::string>{{"tinyproxy.conf", configuration}});
}

}  // namespace support
