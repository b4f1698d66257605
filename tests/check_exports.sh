#!/usr/bin/env bash
# The shared library exports only the documented C names: the zeph_*
# detection, settings and DSCP exports, MORL_Media*, MORL_Stun* and kest_*.
set -euo pipefail
lib=$1
bad=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' \
  | grep -vE '^(zeph_|MORL_Media|MORL_Stun|kest_)' || true)
if [ -n "$bad" ]; then
  echo "unexpected exports:"; echo "$bad"; exit 1
fi
for must in zeph_3port_detect zeph_any_port_detect zeph_net_detect zeph_single_net_detect zeph_detect_start_opt_mult_site \
            zeph_detect_start_mult_site_client zeph_detect_set_qos_roles zeph_detect_set_qos_weight zeph_fw_detect_start \
            zeph_any_port_detect_new zeph_single_port_detect \
            zeph_detect_start_long_time_bw zeph_detect_start_stun_long_time \
            zeph_settings_set_http_proxy zeph_settings_set_dns_servers zeph_get_trans_protocol_type_str zeph_set_socket_dscp \
            MORL_MediaCreateSocket MORL_MediaCloseSocket MORL_MediaCreateChannel MORL_MediaReCreateChannel \
            MORL_MediaSend MORL_MediaSetChannelBufSize MORL_MediaGetChannelBufSize MORL_MediaSetTcpBufSize \
            MORL_MediaRegisterRecvCallback MORL_MediaSetEventCallback MORL_MediaGetStats \
            MORL_MediaGetFirstSessionId MORL_MediaSetLogCallback; do
  nm -D --defined-only "$lib" | grep -qw "$must" || { echo "missing export: $must"; exit 1; }
done
# Our additions beyond the detection exports every caller knows: the simple
# QoS detection's start and its six server names.
for must in zeph_simple_qos_detect zeph_set_simple_qos_srvs; do
  nm -D --defined-only "$lib" | grep -qw "$must" || { echo "missing export: $must"; exit 1; }
done
# The tunnel socket shim.
for must in kest_socket kest_bind kest_close_socket kest_select kest_ioctl kest_get_sock_opt kest_set_sock_opt \
            kest_fd_zero kest_fd_set kest_fd_isset kest_set_port kest_get_port kest_set_ssrc_flag kest_get_ssrc_flag \
            kest_get_last_error kest_get_tunnel_bufsize kest_sendto kest_recvfrom; do
  nm -D --defined-only "$lib" | grep -qw "$must" || { echo "missing export: $must"; exit 1; }
done
# Internal helpers of the platform layer must stay hidden.
for hidden in DoLog MORL_Socket zeph_http_proxy_connect_ex get_addr_ipv4 zeph_get_dns_servers \
              MORL_MSG_Init MORL_MSG_SynSend RAVN_NETB_DnsGetIpByAsynResolve; do
  if nm -D --defined-only "$lib" | grep -qw "$hidden"; then echo "leaked: $hidden"; exit 1; fi
done
echo "exports ok: $(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/' | wc -l) symbols"
