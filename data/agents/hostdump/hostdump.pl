#!/usr/bin/perl
# hostdump: the migration agent for a plain web and mail host.
#
# A site is a directory below the web root (one per domain), a mail domain a directory below the
# mail root holding one directory per mailbox; the owner of a domain's directory is its client.
# The agent describes them in dump.xml beside itself, packs their files into content archives
# that the destination host downloads, and keeps dumping-status.xml up to date while it works.
#
#   hostdump.pl --get-status
#   hostdump.pl --dump-all [options]
#   hostdump.pl [--dump-domains=-] [--dump-clients=-] [--dump-resellers=-] [options]
#   hostdump.pl --get-content-list
#
# Options: --only-mail, --only-hosting, --no-compress, --no-content, --include-app-distrib,
# --content-transport=rsync. Lists given as "-" are read from standard input, one line each, in
# the order domains, clients, resellers; with --content-transport=rsync four lines come first:
# host, login, password, port. The password is read and never kept.
#
# Settings come from hostdump.conf beside the script ("key = value"), overridden by the
# environment: web_root (HOSTDUMP_WEB_ROOT, default /var/www/vhosts), mail_root
# (HOSTDUMP_MAIL_ROOT, default /var/qmail/mailnames) and delay (HOSTDUMP_DELAY, seconds that a
# dump is stretched to, for trying out progress reporting; default 0).
#
# Every run records its arguments and standard input, the password withheld, in last-invocation
# beside the script, so that an operator can see what the destination host asked for.
use strict;
use warnings;
use FindBin ();
use lib $FindBin::Bin, "$FindBin::Bin/../shared";
use FerryAgent qw(xml_escape xml_element write_atomically write_dumping_status md5_file
  read_config timestamp);
use Getopt::Long ();

my $AGENT = 'hostdump';
my $VERSION = '1.0';
my $here = $FindBin::Bin;
my $status_file = "$here/dumping-status.xml";
my $content_dir = "$here/content";
my $manifest_file = "$here/content-manifest";
my $final_newline = 'no';

umask(077);
my %config = (web_root => '/var/www/vhosts', mail_root => '/var/qmail/mailnames', delay => 0);
%config = (%config, read_config("$here/hostdump.conf"));
for my $key (qw(web_root mail_root delay)) {
    my $env = 'HOSTDUMP_' . uc($key);
    $config{$key} = $ENV{$env} if defined $ENV{$env} && $ENV{$env} ne '';
}

my @arguments = @ARGV;
my %opt;
Getopt::Long::Configure('no_ignore_case', 'no_auto_abbrev');
unless (Getopt::Long::GetOptions(\%opt, 'get-status', 'get-content-list', 'dump-all',
        'dump-domains=s', 'dump-clients=s', 'dump-resellers=s', 'only-mail', 'only-hosting',
        'no-compress', 'no-content', 'include-app-distrib', 'content-transport=s')) {
    record_invocation(\@arguments, undef);
    print STDERR "$AGENT: unknown option; see the comment at the top of $0\n";
    exit 2;
}

my $dumping = $opt{'dump-all'} || grep { defined $opt{$_} } qw(dump-domains dump-clients dump-resellers);
my @input = $dumping ? read_input() : ();
record_invocation(\@arguments, $dumping ? \@input : undef);

if ($opt{'get-status'}) {
    print_status();
} elsif ($opt{'get-content-list'}) {
    print_content_list();
} elsif ($dumping) {
    # Loaded here, not at the top: the content list, asked for on every download, needs none.
    require File::Find;
    require Sys::Hostname;
    require Time::HiRes;
    my $started = Time::HiRes::time();
    my $ok = eval { dump_host(\@input, $started); 1 };
    unless ($ok) {
        my $error = $@ || "unknown failure\n";
        eval { write_dumping_status($status_file, state => 'failed', started => $started, message => $error) };
        print STDERR "$AGENT: $error";
        exit 1;
    }
} else {
    print STDERR "$AGENT: nothing to do: give --get-status, --dump-all, --dump-domains, "
      . "--dump-clients, --dump-resellers or --get-content-list\n";
    exit 2;
}
exit 0;

# Standard input as lines without their line ends, remembering whether the last one had one.
sub read_input {
    local $/;
    my $text = <STDIN>;
    $text = '' unless defined $text;
    $final_newline = $text =~ /\n\z/ ? 'yes' : 'no';
    return split(/\n/, $text);
}

sub rsync_transport { return defined $opt{'content-transport'} && $opt{'content-transport'} eq 'rsync' }

sub record_invocation {
    my ($args, $input) = @_;
    my $text = "uid=$<\n";
    $text .= "arg=$_\n" for @$args;
    if ($input) {
        my @lines = @$input;
        # The third line of the rsync connection data is the login password.
        $lines[2] = '(password withheld)' if rsync_transport() && @lines >= 3;
        $text .= "in=$_\n" for @lines;
        $text .= "in-final-newline=$final_newline\n";
    }
    eval { write_atomically("$here/last-invocation", $text, 0600) };
}

sub print_status {
    require Sys::Hostname;
    my @tools = map { my $path = find_program($_); [ $_, $path ] } qw(tar gzip);
    print qq(<?xml version="1.0" encoding="UTF-8"?>\n<agentstatus>\n);
    print '  ', xml_element('statusfile', [], 'dumping-status.xml'), "\n";
    print '  ', xml_element('agent', [ name => $AGENT, version => $VERSION, directory => $here ]), "\n";
    print '  ', xml_element('host', [ perl => sprintf('%vd', $^V) ], Sys::Hostname::hostname()), "\n";
    for my $root (qw(web_root mail_root)) {
        print '  ', xml_element('root', [ kind => $root eq 'web_root' ? 'web' : 'mail',
            present => -d $config{$root} ? 'yes' : 'no' ], $config{$root}), "\n";
    }
    for my $tool (@tools) {
        print '  ', xml_element('tool', [ name => $tool->[0], present => $tool->[1] ? 'yes' : 'no' ], $tool->[1]), "\n";
    }
    print "</agentstatus>\n";
}

sub find_program {
    my ($name) = @_;
    for my $dir (split(/:/, $ENV{PATH} || '/usr/bin:/bin'), qw(/usr/bin /bin)) {
        return "$dir/$name" if -x "$dir/$name";
    }
    return undef;
}

# The objects of this host: domain name => { client, site (dir or undef), mail (dir or undef) }.
sub discover_domains {
    my %domains;
    for my $kind (qw(site mail)) {
        my $root = $config{ $kind eq 'site' ? 'web_root' : 'mail_root' };
        opendir(my $dh, $root) or next;
        for my $name (sort readdir($dh)) {
            next if $name =~ /^\./ || !-d "$root/$name" || -l "$root/$name";
            my $owner = getpwuid((stat("$root/$name"))[4]);
            $domains{$name}{$kind} = "$root/$name";
            $domains{$name}{client} //= defined $owner ? $owner : (stat(_))[4];
        }
        closedir($dh);
    }
    return %domains;
}

sub split_list { return grep { $_ ne '' } split(/,/, defined $_[0] ? $_[0] : '') }

sub dump_host {
    my ($input, $started) = @_;
    my @lines = @$input;
    splice(@lines, 0, 4) if rsync_transport();
    my %wanted;
    for my $kind (qw(domains clients resellers)) {
        my $value = $opt{"dump-$kind"};
        next unless defined $value;
        $value = shift(@lines) if $value eq '-';
        $wanted{$kind} = [ split_list($value) ];
    }

    my %domains = discover_domains();
    my (@selected, @missing);
    if ($opt{'dump-all'}) {
        @selected = sort keys %domains;
    } else {
        my %pick;
        for my $name (@{ $wanted{domains} || [] }) {
            if ($domains{$name}) { $pick{$name} = 1 } else { push @missing, [ domain => $name ] }
        }
        for my $client (@{ $wanted{clients} || [] }) {
            my @owned = grep { $domains{$_}{client} eq $client } keys %domains;
            push @missing, [ client => $client ] unless @owned;
            $pick{$_} = 1 for @owned;
        }
        # A plain host has no resellers: every reseller asked for is reported missing.
        push @missing, [ reseller => $_ ] for @{ $wanted{resellers} || [] };
        @selected = sort keys %pick;
    }

    my $filter = $opt{'only-mail'} ? 'only-mail' : $opt{'only-hosting'} ? 'only-hosting' : 'everything';
    my $with_content = !$opt{'no-content'};
    prepare_content_dir() if $with_content;

    my $total = @selected;
    write_dumping_status($status_file, state => 'running', started => $started, total => $total, done => 0);
    my (%by_client, %manifest);
    my $done = 0;
    for my $name (@selected) {
        my $domain = $domains{$name};
        write_dumping_status($status_file, state => 'running', started => $started, total => $total,
            done => $done, object => $name, object_type => 'domain');
        my $xml = '    ' . xml_element('domain', [ name => $name ]) . "\n";
        $xml =~ s{/>\n\z}{>\n};
        if ($domain->{site} && $filter ne 'only-mail') {
            my ($files, $size) = measure($domain->{site});
            $xml .= '      ' . xml_element('site', [ root => $domain->{site}, files => $files, size => $size ]);
            if ($with_content) {
                $xml =~ s{/>\z}{>\n};
                $xml .= '        ' . pack_content($domain->{site}, "${name}_site", $size, \%manifest) . "\n      </site>";
            }
            $xml .= "\n";
        }
        if ($domain->{mail} && $filter ne 'only-hosting') {
            $xml .= '      ' . xml_element('mail', [ root => $domain->{mail} ]) . "\n";
            $xml =~ s{/>\n\z}{>\n};
            my $unpacked = 0;
            opendir(my $dh, $domain->{mail}) or die "cannot read $domain->{mail}: $!\n";
            for my $box (sort grep { !/^\./ && -d "$domain->{mail}/$_" } readdir($dh)) {
                my ($messages, $size) = measure("$domain->{mail}/$box");
                $unpacked += $size;
                $xml .= '        ' . xml_element('mailbox', [ name => $box, messages => $messages, size => $size ]) . "\n";
            }
            closedir($dh);
            $xml .= '        ' . pack_content($domain->{mail}, "${name}_mail", $unpacked, \%manifest) . "\n" if $with_content;
            $xml .= "      </mail>\n";
        }
        $xml .= "    </domain>\n";
        push @{ $by_client{ $domain->{client} } }, $xml;
        $done++;
        stretch($started, $done, $total, $name);
    }
    stretch($started, 1, 1, undef) unless $total;

    my $dump = qq(<?xml version="1.0" encoding="UTF-8"?>\n);
    $dump .= '<hostdump' . join('', map { sprintf(' %s="%s"', $_->[0], xml_escape($_->[1])) }
        [ version => $VERSION ], [ agent => $AGENT ], [ host => Sys::Hostname::hostname() ],
        [ created => timestamp() ]) . ">\n";
    $dump .= '  ' . xml_element('parameters', [
        mode => $opt{'dump-all'} ? 'all' : 'selected',
        filter => $filter,
        compression => $opt{'no-compress'} ? 'none' : 'gzip',
        content => $with_content ? 'yes' : 'no',
        'app-distrib' => $opt{'include-app-distrib'} ? 'yes' : 'no',
        'content-transport' => rsync_transport() ? 'rsync' : 'ssh' ]) . "\n";
    for my $client (sort keys %by_client) {
        $dump .= '  ' . xml_element('client', [ name => $client ]) . "\n";
        $dump =~ s{/>\n\z}{>\n};
        $dump .= join('', @{ $by_client{$client} }) . "  </client>\n";
    }
    $dump .= '  ' . xml_element('not-found', [ type => $_->[0], name => $_->[1] ]) . "\n" for @missing;
    $dump .= "</hostdump>\n";

    write_manifest(\%manifest) if $with_content;
    write_atomically("$here/dump.xml", $dump, 0600);
    give_to_invoker("$here/dump.xml");
    write_dumping_status($status_file, state => 'finished', started => $started, total => $total, done => $done);
}

# Number of files and their total size below $dir.
sub measure {
    my ($dir) = @_;
    my ($files, $size) = (0, 0);
    File::Find::find({ no_chdir => 1, wanted => sub {
        return unless -f $File::Find::name && !-l $File::Find::name;
        $files++;
        $size += -s _;
    } }, $dir);
    return ($files, $size);
}

# Sleeps until $done of $total objects have taken their share of the configured delay,
# rewriting the dumping status meanwhile so that a reader can watch the dump advance.
sub stretch {
    my ($started, $done, $total, $object) = @_;
    my $delay = $config{delay} || 0;
    return unless $delay > 0;
    my $until = $started + $delay * $done / $total;
    while ((my $left = $until - Time::HiRes::time()) > 0) {
        Time::HiRes::sleep($left < 0.5 ? $left : 0.5);
        write_dumping_status($status_file, state => 'running', started => $started,
            total => $total, done => $done, defined $object ? (object => $object) : ());
    }
}

sub prepare_content_dir {
    mkdir($content_dir, 0700) unless -d $content_dir;
    die "cannot create $content_dir: $!\n" unless -d $content_dir;
    # Archives of an earlier dump would otherwise be offered again.
    opendir(my $dh, $content_dir) or die "cannot read $content_dir: $!\n";
    for my $name (readdir($dh)) {
        unlink("$content_dir/$name") if -f "$content_dir/$name";
    }
    closedir($dh);
    give_to_invoker($content_dir);
}

# Packs $dir into the content directory; returns the dump's content element for it.
sub pack_content {
    my ($dir, $base, $unpacked, $manifest) = @_;
    $base =~ s/[^A-Za-z0-9._-]/_/g;
    my $compress = !$opt{'no-compress'};
    my $file = $base . ($compress ? '.tar.gz' : '.tar');
    my $path = "$content_dir/$file";
    my ($parent, $leaf) = $dir =~ m{^(.*)/([^/]+)$} or die "cannot pack $dir\n";
    $parent = '/' if $parent eq '';
    if (my $tar = find_program('tar')) {
        my @command = ($tar, '-C', $parent, $compress ? '-czf' : '-cf', $path, '--', $leaf);
        system(@command) == 0 or die "tar failed for $dir (status $?)\n";
    } else {
        pack_with_archive_tar($parent, $leaf, $path, $compress);
    }
    give_to_invoker($path);
    my @st = stat($path) or die "cannot stat $path: $!\n";
    my $md5 = md5_file($path);
    $manifest->{$file} = [ $st[7], $st[9], $md5, $unpacked ];
    return xml_element('content', [ file => $file, size => $st[7], unpacked => $unpacked, md5sum => $md5 ]);
}

# Without a tar program: Archive::Tar holds the archive in memory, acceptable for the small
# hosts that lack tar.
sub pack_with_archive_tar {
    my ($parent, $leaf, $path, $compress) = @_;
    require Archive::Tar;
    my @files;
    File::Find::find({ no_chdir => 1, wanted => sub { push @files, $File::Find::name } }, "$parent/$leaf");
    my $tar = Archive::Tar->new;
    for my $file (@files) {
        (my $name = $file) =~ s{^\Q$parent\E/?}{};
        my ($item) = $tar->add_files($file) or die "cannot add $file: " . $tar->error . "\n";
        $item->rename($name);
    }
    $tar->write($path, $compress ? Archive::Tar::COMPRESS_GZIP() : 0) or die "cannot write $path: " . $tar->error . "\n";
}

# Run through sudo, the agent writes as root; its files go back to the login that asked, which
# downloads them without root rights.
sub give_to_invoker {
    my ($path) = @_;
    return unless $< == 0 && defined $ENV{SUDO_UID} && $ENV{SUDO_UID} =~ /^\d+$/;
    my $gid = defined $ENV{SUDO_GID} && $ENV{SUDO_GID} =~ /^\d+$/ ? $ENV{SUDO_GID} : -1;
    chown($ENV{SUDO_UID}, $gid, $path);
}

sub write_manifest {
    my ($manifest) = @_;
    my $text = join('', map { join("\t", $_, @{ $manifest->{$_} }) . "\n" } sort keys %$manifest);
    write_atomically($manifest_file, $text, 0600);
}

sub read_manifest {
    my %manifest;
    open(my $in, '<', $manifest_file) or return %manifest;
    while (my $line = <$in>) {
        chomp($line);
        my ($file, @fields) = split(/\t/, $line);
        $manifest{$file} = \@fields if @fields == 4;
    }
    close($in);
    return %manifest;
}

# Every archive waiting in the content directory, with its true size and MD5 sum. Sums recorded
# at packing time are reused while the file is unchanged.
sub print_content_list {
    my %manifest = read_manifest();
    my @entries;
    my ($total, $unpacked_total) = (0, 0);
    if (opendir(my $dh, $content_dir)) {
        for my $file (sort readdir($dh)) {
            my $path = "$content_dir/$file";
            next unless -f $path && !-l $path;
            my @st = stat(_);
            my $known = $manifest{$file};
            my $fresh = $known && $known->[0] == $st[7] && $known->[1] == $st[9];
            my $md5 = $fresh ? $known->[2] : md5_file($path);
            my $unpacked = $fresh ? $known->[3] : $st[7];
            $total += $st[7];
            $unpacked_total += $unpacked;
            push @entries, xml_element('file', [ size => $st[7], md5sum => $md5 ], $path);
        }
        closedir($dh);
    }
    print qq(<?xml version="1.0" encoding="UTF-8"?>\n);
    print qq(<contentlist size="$total" unpacked="$unpacked_total">\n);
    print "  $_\n" for @entries;
    print "</contentlist>\n";
}
