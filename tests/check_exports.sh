#!/usr/bin/env bash
# The shared library exports exactly the documented C names: every one below
# is present and nothing else is (internal helpers of the platform layer, such
# as DoLog, MORL_Socket or get_addr_ipv4, stay hidden).
set -euo pipefail
lib=$1
# The exports every caller of the library knows.
known="
  zeph_net_tools_init zeph_net_tools_uninit zeph_get_detect_protocol_type_str zeph_get_trans_protocol_type_str
  zeph_3port_detect zeph_any_port_detect
  zeph_net_detect zeph_net_detect_default zeph_net_detect_jni zeph_single_net_detect zeph_set_net_detect_srvs
  zeph_any_port_detect_new zeph_single_port_detect zeph_detect_start_opt_mult_site
  zeph_detect_start_mult_site_client zeph_detect_set_qos_roles zeph_detect_set_qos_weight
  zeph_detect_start_long_time_bw zeph_detect_start_stun_long_time zeph_fw_detect_start
  zeph_set_socket_dscp
  kest_socket kest_bind kest_close_socket kest_select kest_ioctl kest_get_sock_opt kest_set_sock_opt
  kest_fd_zero kest_fd_set kest_fd_isset kest_set_port kest_get_port kest_set_ssrc_flag kest_get_ssrc_flag
  kest_get_last_error kest_get_tunnel_bufsize kest_sendto kest_recvfrom
  MORL_MediaCreateSocket MORL_MediaCloseSocket MORL_MediaCreateChannel MORL_MediaReCreateChannel
  MORL_MediaSend MORL_MediaSetChannelBufSize MORL_MediaGetChannelBufSize MORL_MediaSetTcpBufSize
  MORL_MediaRegisterRecvCallback MORL_MediaSetEventCallback MORL_MediaGetStats
  MORL_MediaGetFirstSessionId MORL_MediaSetLogCallback
  MORL_StunSetLocalIceInfo MORL_StunSetRemoteIceInfo MORL_StunClearIceInfo MORL_StunSetChannelId
  MORL_StunGetChannelId MORL_StunGetPrivateHeadSize MORL_StunBuildPacket MORL_StunBuildPacketOfFuzzyMatchKey
  MORL_StunBuildStunPacket"
# Our additions: the host settings and the simple QoS detection's start and servers.
added="
  zeph_settings_set_log_sink zeph_settings_set_http_proxy zeph_settings_set_local_addr zeph_settings_set_dns_servers
  zeph_simple_qos_detect zeph_set_simple_qos_srvs"
want=$(printf '%s\n' $known $added | sort)
have=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVWi]$/ {print $3}' | sed 's/@.*//' | sort -u)
missing=$(comm -23 <(echo "$want") <(echo "$have"))
extra=$(comm -13 <(echo "$want") <(echo "$have"))
[ -z "$missing" ] || { echo "missing exports:"; echo "$missing"; }
[ -z "$extra" ] || { echo "unexpected exports:"; echo "$extra"; }
[ -z "$missing$extra" ] || exit 1
echo "exports ok: $(printf '%s\n' $known | wc -l) known and $(printf '%s\n' $added | wc -l) added"
