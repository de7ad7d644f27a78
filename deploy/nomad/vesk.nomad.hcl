# A fleet of Vesk as a Nomad job with the image vesk-controller: one allocation for each owner, on a host of its own.
# Allocation N is found by the others as vesk-N.service.consul.

variable "owners" {
  type        = number
  default     = 3
  description = "Decides which allocation owns a label, so it is chosen once."
}

variable "image" {
  type    = string
  default = "registry.example.org/vesk-controller:1.0.0-1"
}

job "vesk" {
  datacenters = ["dc1"]

  # One after the other: each allocation is the only owner of its labels.
  update {
    max_parallel     = 1
    health_check     = "checks"
    min_healthy_time = "35s"
  }

  group "owners" {
    count = var.owners

    constraint {
      operator = "distinct_hosts"
      value    = "true"
    }

    # The hosts' own ports and addresses: peers see the host, and Vesk sees the peers.
    network {
      mode = "host"
      port "public" {
        static = 4500
      }
      port "lateral" {
        static = 9000
      }
      port "metrics" {
        static = 9477
      }
    }

    service {
      # Without a check: the others have to find an allocation before it is ready.
      name = "vesk-${NOMAD_ALLOC_INDEX}"
      port = "lateral"
    }

    service {
      name = "vesk"
      port = "metrics"

      check {
        name     = "ready"
        type     = "http"
        path     = "/ready"
        interval = "2s"
        timeout  = "2s"
      }

      check {
        name     = "alive"
        type     = "http"
        path     = "/healthz"
        interval = "10s"
        timeout  = "3s"

        check_restart {
          limit = 6
        }
      }
    }

    task "vesk" {
      driver = "docker"
      user   = "10001"

      # More than leave_seconds + drain_seconds and 9 seconds for a forwarder that does not end.
      kill_timeout = "40s"
      kill_signal  = "SIGTERM"

      config {
        image           = var.image
        network_mode    = "host"
        args            = ["/secrets/conf.d/"]
        readonly_rootfs = true
        cap_drop        = ["all"]
        security_opt    = ["no-new-privileges"]
      }

      env {
        VESK_INSTANCES = "${var.owners}"
      }

      # The controller watches the folder, so a change restarts nothing. The folder holds keys, so it is one whose
      # files Nomad's interface does not show.
      template {
        destination = "secrets/conf.d/settings.toml"
        change_mode = "noop"
        data        = <<EOT
[downstream]
address = "{{ env "NOMAD_IP_public" }}"
port = 4500

[lateral]
address = "{{ env "NOMAD_IP_lateral" }}"
port = 9000
index_from = "env:NOMAD_ALLOC_INDEX"
instances_from = "env:VESK_INSTANCES"
peers_from = "vesk-{index}.service.consul:9000"
resolve_seconds = 5

[controller]
leave_seconds = 10
drain_seconds = 15

[metrics]
address = "{{ env "NOMAD_IP_metrics" }}"
port = 9477
required = true
EOT
      }

      template {
        destination = "secrets/conf.d/alice.toml"
        change_mode = "noop"
        data        = <<EOT
[flows.alice]
label = 0x10001
upstream = "10.0.1.10:5000"
from_peer   = { key_file = "alice-from-peer.key" }
to_upstream = { label = 0x110001 }
to_peer     = { key_file = "alice-to-peer.key", label = 0x10001 }
EOT
      }

      # nomad var put nomad/jobs/vesk alice_from_peer=KEY alice_to_peer=KEY
      template {
        destination = "secrets/conf.d/alice-from-peer.key"
        change_mode = "noop"
        perms       = "0400"
        uid         = 10001
        gid         = 10001
        data        = "{{ with nomadVar \"nomad/jobs/vesk\" }}{{ .alice_from_peer }}{{ end }}"
      }

      template {
        destination = "secrets/conf.d/alice-to-peer.key"
        change_mode = "noop"
        perms       = "0400"
        uid         = 10001
        gid         = 10001
        data        = "{{ with nomadVar \"nomad/jobs/vesk\" }}{{ .alice_to_peer }}{{ end }}"
      }

      resources {
        cpu        = 1000
        memory     = 128
        memory_max = 512
      }
    }
  }
}
